#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <thread>

#include "vault/KeyedArchive.h"
#include "vault/QVRecord.h"

using namespace qv;

namespace {

// Records each notice as "will:key" / "did:key", with the value the key had then.
class Recorder : public QVRecordObserver {
public:
    std::vector<std::string> events;
    std::vector<Value> seen;
    void recordWillChangeValueForKey(const QVRecord& record, const std::string& key) override {
        events.push_back("will:" + key);
        seen.push_back(record.valueForKey(key));
    }
    void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) override {
        events.push_back("did:" + key);
        seen.push_back(record.valueForKey(key));
    }
};

QVRecordRef folderWithDiskInfo() {
    auto folder = QVFolderCreate(QVStorageCreate("Default", URLValue{"/data"}), URLValue{"/home/u/Secret"});
    DiskInfoRef info{QVRecordForProtocol(DiskInfo)};
    info.setUrl(Value::url("/data/x.sparsebundle"));
    FolderRef{folder}.setDiskinfo(Value(info.record));
    return folder;
}

std::optional<Value> readFile(const std::string& path, QVError* error) {
    std::ifstream in(path, std::ios::binary);
    Bytes data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return unarchiveObjectWithData(data, error);
}

} // namespace

TEST(QVRecord, CopiesShareTheirFieldsButBoxCopiesDoNot) {
    auto storage = QVStorageCreate("Default", URLValue{"/data"});
    auto copy = storage->copy();
    EXPECT_NE(copy, storage);
    EXPECT_EQ(copy->dict(), storage->dict());
    storage->setValueForKey(Value("Renamed"), "name");
    EXPECT_EQ(copy->valueForKey("name").toString(), "Renamed");
    copy->setValueForKeyPath(Value::url("/elsewhere"), "url");
    EXPECT_EQ(storage->valueForKey("url").toURLPath(), "/elsewhere");
    EXPECT_TRUE(storage->isEqual(*copy));

    // initWithDict keeps the dictionary it is given.
    DictRef dict = QVRecordFillDict(nullptr, Storage);
    auto record = QVRecord::initWithDict(dict);
    record->setValueForKey(Value("n"), "name");
    EXPECT_EQ(QVDictGet(*dict, "name").as<QVRecordValue>()->obj().toString(), "n");

    // A box's copy is a new box: same flag, own value, own list.
    auto box = std::make_shared<QVRecordValue>(true, Value::newArray({Value(1)}));
    auto boxCopy = box->copy();
    EXPECT_TRUE(boxCopy->atomic());
    EXPECT_TRUE(boxCopy->isEqual(*box));
    boxCopy->obj().toArray()->push_back(Value(2));
    EXPECT_EQ(box->obj().toArray()->size(), 1u);
    boxCopy->setObj(Value("other"));
    EXPECT_EQ(box->obj().toArray()->size(), 1u);
}

TEST(QVRecord, UnknownNamesAreDroppedYetObserversHear) {
    auto storage = QVStorageCreate("Default", URLValue{"/data"});
    auto recorder = std::make_shared<Recorder>();
    storage->addObserver(recorder, "nosuch");
    storage->addObserver(recorder, "name");
    size_t fields = storage->dict()->size();

    storage->setValueForKey(Value("x"), "nosuch");
    EXPECT_TRUE(storage->valueForKey("nosuch").isNull());
    EXPECT_EQ(storage->dict()->size(), fields);
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"will:nosuch", "did:nosuch"}));

    // Observers hear before and after: the old value, then the new one.
    recorder->events.clear();
    recorder->seen.clear();
    storage->setValueForKey(Value("New"), "name");
    EXPECT_EQ(recorder->events, (std::vector<std::string>{"will:name", "did:name"}));
    EXPECT_EQ(recorder->seen[0].toString(), "Default");
    EXPECT_EQ(recorder->seen[1].toString(), "New");

    // setNilValueForKey writes null and is heard; a copy's observers are its own.
    recorder->events.clear();
    storage->copy()->setNilValueForKey("name");
    EXPECT_TRUE(storage->valueForKey("name").isNull());
    EXPECT_TRUE(recorder->events.empty());
    storage->setNilValueForKey("name");
    EXPECT_EQ(recorder->events.size(), 2u);

    // Unregistered and dead observers hear nothing.
    recorder->events.clear();
    storage->removeObserver(recorder.get(), "name");
    storage->setValueForKey(Value("again"), "name");
    EXPECT_TRUE(recorder->events.empty());
    std::weak_ptr<Recorder> gone = recorder;
    recorder.reset();
    EXPECT_TRUE(gone.expired());
    storage->setValueForKey(Value("y"), "nosuch");  // must not touch the dead observer
}

TEST(QVRecord, KeyPathsReadThroughRecordsAndNotifyOnlyWhenLongerThanOnePart) {
    auto folder = folderWithDiskInfo();
    auto info = FolderRef{folder}.diskinfo().as<QVRecord>();
    ASSERT_TRUE(info);
    auto onInfo = std::make_shared<Recorder>(), onFolder = std::make_shared<Recorder>();
    info->addObserver(onInfo, "url");
    folder->addObserver(onFolder, "diskinfo");
    folder->addObserver(onFolder, "uuid");

    EXPECT_EQ(folder->valueForKeyPath("diskinfo.url").toURLPath(), "/data/x.sparsebundle");
    EXPECT_EQ(folder->valueForKeyPath("storage.name").toString(), "Default");
    EXPECT_TRUE(folder->valueForKeyPath("storage.nosuch").isNull());
    EXPECT_TRUE(folder->valueForKeyPath("nosuch.url").isNull());
    EXPECT_TRUE(folder->valueForKeyPath("uuid.deeper").isNull());

    folder->setValueForKeyPath(Value::url("/moved/x.sparsebundle"), "diskinfo.url");
    EXPECT_EQ(info->valueForKey("url").toURLPath(), "/moved/x.sparsebundle");
    EXPECT_EQ(onInfo->events, (std::vector<std::string>{"will:url", "did:url"}));
    EXPECT_TRUE(onFolder->events.empty());

    folder->setValueForKeyPath(Value("NEW-UUID"), "uuid");
    EXPECT_EQ(folder->valueForKey("uuid").toString(), "NEW-UUID");
    EXPECT_TRUE(onFolder->events.empty());

    // Paths through nothing, or to names without boxes, change nothing.
    folder->setValueForKeyPath(Value("x"), "nosuch");
    folder->setValueForKeyPath(Value("x"), "password.deeper");
    EXPECT_TRUE(folder->valueForKey("nosuch").isNull());
    EXPECT_EQ(onInfo->events.size(), 2u);

    // Dictionaries on the way answer too.
    auto face = QVRecordForProtocol(FolderFace);
    face->setValueForKey(Value::newDict({{"k", Value(1)}}), "statusText");
    EXPECT_EQ(face->valueForKeyPath("statusText.k").toInt(), 1);
    face->setValueForKeyPath(Value(2), "statusText.k");
    EXPECT_EQ(face->valueForKeyPath("statusText.k").toInt(), 2);
}

// Tasks write `locked` and `opCanceled` while the interface reads them, and a key
// path walk holds the box for its whole length. Run under the sanitizers.
TEST(QVRecord, AtomicFieldsHoldUpUnderConcurrentWriters) {
    auto face = QVRecordForProtocol(FolderFace);
    EXPECT_TRUE(face->boxForKey("locked")->atomic());
    EXPECT_TRUE(face->boxForKey("opCanceled")->atomic());
    EXPECT_FALSE(face->boxForKey("statusText")->atomic());

    const std::set<std::string> allowed = {"", "a fairly long status text that lives on the heap, not inline",
                                           "another long text, so that a torn copy would be caught"};
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < 3; ++w) {
        threads.emplace_back([&, w] {
            for (int i = 0; i < 20000; ++i) {
                face->setValueForKey(Value(i % 2 == 0), "locked");
                face->setValueForKey(Value(std::string(*std::next(allowed.begin(), 1 + (i + w) % 2))), "opCanceled");
                if (i % 100 == 0) face->setValueForKeyPath(Value(true), "locked");
            }
        });
    }
    for (int r = 0; r < 2; ++r) {
        threads.emplace_back([&] {
            while (!stop) {
                Value locked = face->valueForKeyPath("locked");
                Value text = face->valueForKey("opCanceled");
                if (!locked.isNull() && locked.kind() != Value::Kind::Bool) ++bad;
                if (!text.isNull() && !allowed.count(text.toString())) ++bad;
            }
        });
    }
    for (int w = 0; w < 3; ++w) threads[w].join();
    stop = true;
    for (size_t t = 3; t < threads.size(); ++t) threads[t].join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(face->valueForKey("locked").kind(), Value::Kind::Bool);
}

TEST(QVRecord, UpgradeAddsMissingFieldsEmptyAndKeepsTheRest) {
    DictRef dict = std::make_shared<Dict>();
    auto kept = std::make_shared<QVRecordValue>(false, Value("OLD-UUID"));
    (*dict)["uuid"] = Value(kept);
    (*dict)["retired"] = Value(std::make_shared<QVRecordValue>(false, Value(7)));  // a field no schema has now
    (*dict)["position"] = Value(std::make_shared<QVRecordValue>());              // present, though null
    auto folder = QVRecord::initWithDict(dict);
    folder->setValueForKey(Value(3), "autolock");
    EXPECT_TRUE(folder->valueForKey("autolock").isNull());

    QVRecordUpgrade(folder, Folder);
    EXPECT_EQ(dict->size(), std::size(QVFolderFields) + 1);
    EXPECT_EQ(folder->boxForKey("uuid"), kept);
    EXPECT_EQ(folder->valueForKey("uuid").toString(), "OLD-UUID");
    EXPECT_EQ(folder->valueForKey("retired").toInt(), 7);
    EXPECT_TRUE(folder->valueForKey("lockActions").isNull());
    folder->setValueForKey(Value(3), "autolock");
    EXPECT_EQ(folder->valueForKey("autolock").toInt(), 3);

    // A second upgrade changes nothing; a face's atomic fields come with their flag.
    auto before = folder->boxForKey("autolock");
    QVRecordUpgrade(folder, Folder);
    EXPECT_EQ(folder->boxForKey("autolock"), before);
    auto face = QVRecord::initWithDict(nullptr);
    QVRecordUpgrade(face, FolderFace);
    EXPECT_TRUE(face->boxForKey("locked")->atomic());
    EXPECT_FALSE(face->boxForKey("folder")->atomic());
}

// dictCopy refuses a record with a null field (error 1001 naming it) rather than
// handing out a dictionary with a hole in it.
TEST(QVRecord, DictCopyNeedsEveryFieldFilled) {
    auto info = QVRecordForProtocol(DiskInfo);
    DiskInfoRef d{info};
    d.setUrl(Value::url("/data/x.sparsebundle"));
    d.setEncryption(Value("AES-256"));
    d.setFilesystem(Value("HFS+J"));
    QVError error;
    EXPECT_EQ(info->dictCopy(&error), nullptr);
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_NE(error.description.find("'capacity'"), std::string::npos) << error.description;

    d.setCapacity(Value(1024));
    DictRef copy = info->dictCopy(&error);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->size(), 4u);
    EXPECT_EQ(QVDictGet(*copy, "encryption").toString(), "AES-256");
    EXPECT_EQ(QVDictGet(*copy, "url").toURLPath(), "/data/x.sparsebundle");
    (*copy)["capacity"] = Value(1);
    EXPECT_EQ(d.capacity().toInt(), 1024);
}

TEST(QVRecord, MakersFillTheirFields) {
    auto storage = QVStorageCreate("Default", URLValue{"/data"});
    auto a = QVFolderCreate(storage, URLValue{"/home/u/A"});
    auto b = QVFolderCreate(storage, URLValue{"/home/u/B"});
    FolderRef fa{a}, fb{b};
    const std::regex uuid("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
    EXPECT_TRUE(std::regex_match(fa.uuid().toString(), uuid)) << fa.uuid().toString();
    EXPECT_NE(fa.uuid().toString(), fb.uuid().toString());
    EXPECT_EQ(fa.storage().as<QVRecord>(), storage);
    EXPECT_EQ(fa.mountpoint().toURLPath(), "/home/u/A");
    EXPECT_EQ(fa.autounlock().kind(), Value::Kind::Bool);
    EXPECT_FALSE(fa.autounlock().toBool());
    EXPECT_FALSE(fa.encrypted().toBool());
    EXPECT_EQ(fa.autolock().kind(), Value::Kind::Int);
    EXPECT_TRUE(fa.lockActions().toArray()->empty());
    EXPECT_NE(fa.lockActions().toArray(), fa.unlockActions().toArray());
    EXPECT_NE(fa.lockActions().toArray(), fb.lockActions().toArray());
    EXPECT_TRUE(fa.diskinfo().isNull());
    EXPECT_EQ(a->dict()->size(), std::size(QVFolderFields));

    const std::pair<int64_t, int64_t> priorities[] = {{1, 99}, {2, 1}, {3, 0}, {4, 98}, {0, 0}, {5, 0}, {-1, 0}};
    for (auto [action, priority] : priorities) {
        FolderActionRef f{QVFolderActionCreate(URLValue{"/usr/bin/true"}, action)};
        EXPECT_EQ(f.priority().toInt(), priority) << action;
        EXPECT_EQ(f.action().toInt(), action);
        EXPECT_TRUE(f.parameter().isNull());
    }
    auto color = QVDefaultStatusColor().as<QVColor>();
    ASSERT_TRUE(color);
    EXPECT_DOUBLE_EQ(color->red(), 0.345);
    EXPECT_DOUBLE_EQ(color->blue(), 0.345);
    EXPECT_DOUBLE_EQ(color->alpha(), 1.0);

    FolderRef none;
    EXPECT_TRUE(none.uuid().isNull());
    none.setUuid(Value("ignored"));
}

TEST(QVRecord, FoldersRoundTripThroughTheArchive) {
    auto a = folderWithDiskInfo();
    auto storage = FolderRef{a}.storage().as<QVRecord>();
    auto b = QVFolderCreate(storage, URLValue{"/home/u/Other"});
    FolderRef{a}.lockActions().toArray()->push_back(Value(QVFolderActionCreate(URLValue{"/usr/bin/true"}, 2)));
    FolderRef{a}.setPassword(Value(Bytes{1, 2, 3}));
    auto face = QVRecordForProtocol(FolderFace);
    FolderFaceRef{face}.setFolder(Value(a));
    FolderFaceRef{face}.setLocked(Value(true));
    FolderFaceRef{face}.setStatusColor(QVDefaultStatusColor());
    auto aliasOfB = b->copy();

    QVError error;
    auto data = archivedDataWithRootObject(Value::newArray({Value(a), Value(b), Value(face), Value(aliasOfB)}), &error);
    ASSERT_TRUE(data) << error.description;
    auto back = unarchiveObjectWithData(*data, &error);
    ASSERT_TRUE(back) << error.description;
    ArrayRef list = back->toArray();
    ASSERT_EQ(list->size(), 4u);
    auto a2 = list->at(0).as<QVRecord>(), b2 = list->at(1).as<QVRecord>(), face2 = list->at(2).as<QVRecord>();
    ASSERT_TRUE(a2 && b2 && face2);
    EXPECT_TRUE(a2->isEqual(*a)) << a2->description() << "\n" << a->description();
    EXPECT_TRUE(b2->isEqual(*b));
    EXPECT_FALSE(a2->isEqual(*b2));
    EXPECT_EQ(FolderRef{a2}.storage().as<QVRecord>(), FolderRef{b2}.storage().as<QVRecord>());
    EXPECT_EQ(FolderFaceRef{face2}.folder().as<QVRecord>(), a2);
    EXPECT_EQ(list->at(3).as<QVRecord>()->dict(), b2->dict());  // a copy still shares after reading
    EXPECT_EQ(a2->valueForKeyPath("diskinfo.url").toURLPath(), "/data/x.sparsebundle");
    auto action = FolderRef{a2}.lockActions().toArray()->at(0).as<QVRecord>();
    ASSERT_TRUE(action);
    EXPECT_EQ(FolderActionRef{action}.priority().toInt(), 1);
    EXPECT_TRUE(face2->boxForKey("locked")->atomic());
    EXPECT_FALSE(face2->boxForKey("statusText")->atomic());
    EXPECT_DOUBLE_EQ(FolderFaceRef{face2}.statusColor().as<QVColor>()->green(), 0.345);

    // A face that holds a live object which isn't archivable can't be archived.
    class Live : public Object {
        std::string className() const override { return "LiveOperation"; }
    };
    FolderFaceRef{face}.setCurrentOp(Value(std::make_shared<Live>()));
    EXPECT_FALSE(archivedDataWithRootObject(Value(face), &error));
}

TEST(QVRecord, MalformedRecordsInAnArchiveAreRefused) {
    auto refused = [](const Value& inside) {
        auto record = QVRecord::initWithDict(std::make_shared<Dict>());
        (*record->dict())["field"] = inside;
        auto data = archivedDataWithRootObject(Value(record));
        EXPECT_TRUE(data);
        QVError error;
        EXPECT_FALSE(data && unarchiveObjectWithData(*data, &error));
        EXPECT_EQ(error.code, QVErrorFailed);
    };
    refused(Value("a bare value, not a box"));
    refused(Value(std::make_shared<QVColor>(0, 0, 0, 1)));
    // A box whose value is fine but whose record has a data key.
    auto record = QVRecordForProtocol(Storage);
    (*record->dict())[DictKey(Bytes{1})] = Value(std::make_shared<QVRecordValue>());
    auto data = archivedDataWithRootObject(Value(record));
    ASSERT_TRUE(data);
    QVError error;
    EXPECT_FALSE(unarchiveObjectWithData(*data, &error));
    // Colours out of range are refused as well.
    auto dark = archivedDataWithRootObject(Value(std::make_shared<QVColor>(0, 2, 0, 1)));
    ASSERT_TRUE(dark);
    EXPECT_FALSE(unarchiveObjectWithData(*dark, &error));
}

// A frozen archive written by this version: a set's dictionary with two folders
// sharing one storage, the second written before `position` existed.
TEST(QVRecord, FrozenArchiveStillOpens) {
    QVError error;
    auto root = readFile(QV_FIXTURES_DIR "/keyed-archive-v1.plist", &error);
    ASSERT_TRUE(root) << error.description;
    ASSERT_EQ(root->kind(), Value::Kind::Dict);
    const Dict& d = *root->toDict();
    EXPECT_EQ(QVDictGet(d, "QVSDBVersionKey").toInt(), 1);
    ArrayRef folders = QVDictGet(d, "QVSDBFoldersKey").toArray();
    ASSERT_TRUE(folders);
    ASSERT_EQ(folders->size(), 2u);
    FolderRef a{folders->at(0).as<QVRecord>()}, b{folders->at(1).as<QVRecord>()};
    ASSERT_TRUE(a && b);

    EXPECT_EQ(a.uuid().toString(), "3F2504E0-4F89-11D3-9A0C-0305E82C3301");
    EXPECT_EQ(a.mountpoint().toURLPath(), "/home/user/Secret Stuff");
    EXPECT_TRUE(a.autounlock().toBool());
    EXPECT_TRUE(a.encrypted().toBool());
    EXPECT_EQ(a.password().toData().size(), 48u);
    EXPECT_EQ(a.password().toData()[1], uint8_t(37 + 11));
    EXPECT_EQ(a.folderSize().toInt(), 123456789);
    EXPECT_EQ(a.autolock().toInt(), 15);
    EXPECT_TRUE(a.subdb().isNull());
    DiskInfoRef info{a.diskinfo().as<QVRecord>()};
    EXPECT_EQ(info.encryption().toString(), "AES-256");
    EXPECT_EQ(info.filesystem().toString(), "HFS+J");
    EXPECT_EQ(info.capacity().toInt(), 1073741824);
    EXPECT_EQ(info.url().toURLPath(), "/home/user/.local/share/com.marrowfen.Quillvane3/Data/"
                                      "3F2504E0-4F89-11D3-9A0C-0305E82C3301.sparsebundle");
    FolderActionRef action{a.lockActions().toArray()->at(0).as<QVRecord>()};
    EXPECT_EQ(action.action().toInt(), 1);
    EXPECT_EQ(action.priority().toInt(), 99);
    EXPECT_EQ(action.parameter().toString(), "--quiet");
    EXPECT_EQ(action.url().toURLPath(), "/usr/bin/true");

    EXPECT_EQ(a.storage().as<QVRecord>(), b.storage().as<QVRecord>());
    EXPECT_EQ(StorageRef{a.storage().as<QVRecord>()}.name().toString(), "Default");
    EXPECT_EQ(b.mountpoint().toURLPath(), "/home/user/Ünïcode folder #2");
    EXPECT_EQ(FolderActionRef{b.unlockActions().toArray()->at(0).as<QVRecord>()}.priority().toInt(), 98);

    // The older record gains its missing field, empty, by upgrading.
    EXPECT_FALSE(b.record->boxForKey("position"));
    b.setPosition(Value(4));
    EXPECT_TRUE(b.position().isNull());
    QVRecordUpgrade(b.record, Folder);
    ASSERT_TRUE(b.record->boxForKey("position"));
    EXPECT_TRUE(b.position().isNull());
    b.setPosition(Value(4));
    EXPECT_EQ(b.position().toInt(), 4);

    const Dict& sample = *QVDictGet(d, "sample").toDict();
    EXPECT_DOUBLE_EQ(QVDictGet(sample, "date").toDate(), 1700000000.25);
    EXPECT_EQ(QVDictGet(sample, "real").toDouble(), -0.5);
    EXPECT_EQ(QVDictGet(sample, "int").toInt(), -3);
    EXPECT_EQ(QVDictGet(sample, "flag").kind(), Value::Kind::Bool);
    EXPECT_EQ(QVDictGet(sample, Bytes{0xca, 0xfe}).toString(), "data key");
    EXPECT_EQ(QVDictGet(sample, "url").toURLPath(), "/tmp/100% #odd;name");
}

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "vault/KeyedArchive.h"
#include "vault/QVRecord.h"

using namespace qv;

TEST(QVRecord, UpgradeAddsMissingFieldsEmptyAndKeepsTheRest) {
    auto kept = std::make_shared<QVRecordValue>(false, Value("OLD-UUID"));
    DictRef dict = std::make_shared<Dict>(Dict{
        {"uuid", Value(kept)},
        {"retired", Value(std::make_shared<QVRecordValue>(false, Value(7)))},  // no schema has it now
        {"position", Value(std::make_shared<QVRecordValue>())},               // there, though null
    });
    auto folder = QVRecord::initWithDict(dict);
    QVRecordUpgrade(folder, Folder);
    EXPECT_EQ(dict->size(), std::size(QVFolderFields) + 1);
    EXPECT_EQ(folder->boxForKey("uuid"), kept);
    EXPECT_EQ(folder->valueForKey("retired").toInt(), 7);
}

// Two folders sharing an identity or a list would share an image or actions.
TEST(QVRecord, NewFoldersHaveTheirOwnIdentityAndLists) {
    auto storage = QVStorageCreate("Default", URLValue{"/data"});
    FolderRef a{QVFolderCreate(storage, URLValue{"/home/u/A"})}, b{QVFolderCreate(storage, URLValue{"/home/u/B"})};
    EXPECT_NE(a.uuid().toString(), b.uuid().toString());
    EXPECT_NE(a.lockActions().toArray(), a.unlockActions().toArray());
    EXPECT_NE(a.lockActions().toArray(), b.lockActions().toArray());
}

TEST(QVRecord, FoldersRoundTripThroughTheArchive) {
    auto a = QVFolderCreate(QVStorageCreate("Default", URLValue{"/data"}), URLValue{"/home/u/Secret"});
    DiskInfoRef info{QVRecordForProtocol(DiskInfo)};
    info.setUrl(Value::url("/data/x.sparsebundle"));
    FolderRef{a}.setDiskinfo(Value(info.record));
    auto b = QVFolderCreate(FolderRef{a}.storage().as<QVRecord>(), URLValue{"/home/u/Other"});
    FolderRef{a}.lockActions().toArray()->push_back(Value(QVFolderActionCreate(URLValue{"/usr/bin/true"}, 2)));
    FolderRef{a}.setPassword(Value(Bytes{1, 2, 3}));
    FolderFaceRef face{QVRecordForProtocol(FolderFace)};
    face.setFolder(Value(a));
    face.setLocked(Value(true));
    face.setStatusColor(QVDefaultStatusColor());

    QVError error;
    auto data = archivedDataWithRootObject(Value::newArray({Value(a), Value(b), Value(face.record)}), &error);
    ASSERT_TRUE(data) << error.description;
    auto back = unarchiveObjectWithData(*data, &error);
    ASSERT_TRUE(back) << error.description;
    ArrayRef list = back->toArray();
    auto a2 = list->at(0).as<QVRecord>(), b2 = list->at(1).as<QVRecord>(), face2 = list->at(2).as<QVRecord>();
    ASSERT_TRUE(a2 && b2 && face2);
    EXPECT_TRUE(a2->isEqual(*a) && b2->isEqual(*b)) << a2->description() << "\n" << a->description();
    EXPECT_EQ(FolderRef{a2}.storage().as<QVRecord>(), FolderRef{b2}.storage().as<QVRecord>());
    EXPECT_EQ(FolderFaceRef{face2}.folder().as<QVRecord>(), a2);

    // A face's running operation is no archive material.
    face.setCurrentOp(BlockOperation::blockOperationWithVoidBlock([] {}));
    EXPECT_FALSE(archivedDataWithRootObject(Value(face.record), &error));

    // A record whose field is a bare value, not a box, is refused when read.
    auto bare = QVRecord::initWithDict(std::make_shared<Dict>(Dict{{"field", Value("bare")}}));
    EXPECT_FALSE(unarchiveObjectWithData(*archivedDataWithRootObject(Value(bare)), &error));
}

// A frozen archive written by this version: a Folder Set's dictionary with two
// folders sharing one storage, the second written before `position` existed.
TEST(QVRecord, FrozenArchiveStillOpens) {
    std::ifstream in(QV_FIXTURES_DIR "/keyed-archive-v1.plist", std::ios::binary);
    QVError error;
    auto root = unarchiveObjectWithData(Bytes(std::istreambuf_iterator<char>(in), {}), &error);
    ASSERT_TRUE(root) << error.description;
    const Dict& d = *root->toDict();
    EXPECT_EQ(QVDictGet(d, "QVSDBVersionKey").toInt(), 1);
    ArrayRef folders = QVDictGet(d, "QVSDBFoldersKey").toArray();
    ASSERT_EQ(folders->size(), 2u);
    FolderRef a{folders->at(0).as<QVRecord>()}, b{folders->at(1).as<QVRecord>()};
    ASSERT_TRUE(a && b);

    EXPECT_EQ(a.uuid().toString(), "3F2504E0-4F89-11D3-9A0C-0305E82C3301");
    EXPECT_EQ(a.mountpoint().toURLPath(), "/home/user/Secret Stuff");
    EXPECT_TRUE(a.autounlock().toBool() && a.encrypted().toBool());
    EXPECT_EQ(a.password().toData().size(), 48u);
    EXPECT_EQ(a.record->valueForKeyPath("diskinfo.capacity").toInt(), 1073741824);
    FolderActionRef action{a.lockActions().toArray()->at(0).as<QVRecord>()};
    EXPECT_EQ(action.parameter().toString(), "--quiet");
    EXPECT_EQ(a.storage().as<QVRecord>(), b.storage().as<QVRecord>());
    EXPECT_EQ(b.mountpoint().toURLPath(), "/home/user/Ünïcode folder #2");

    EXPECT_FALSE(b.record->boxForKey("position"));
    QVRecordUpgrade(b.record, Folder);
    b.setPosition(Value(4));
    EXPECT_EQ(b.position().toInt(), 4);

    const Dict& sample = *QVDictGet(d, "sample").toDict();
    EXPECT_DOUBLE_EQ(QVDictGet(sample, "date").toDate(), 1700000000.25);
    EXPECT_EQ(QVDictGet(sample, "flag").kind(), Value::Kind::Bool);
    EXPECT_EQ(QVDictGet(sample, Bytes{0xca, 0xfe}).toString(), "data key");
    EXPECT_EQ(QVDictGet(sample, "url").toURLPath(), "/tmp/100% #odd;name");
}

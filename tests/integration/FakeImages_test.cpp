// Fake images on real images: what one holds and how it is made, a cancel
// between its creation and its dates, an upgrade in which one image fails, and
// a database built the way a user builds it, seen by the examiner.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "app/FolderIntake.h"
#include "app/FolderList.h"
#include "deniability/DBRandomSubdb.h"
#include "deniability/FakeDiskImageTask.h"
#include "deniability/FakeImageNote.h"
#include "deniability/PDAssistantSetup.h"
#include "disk/DiskInfoFile.h"
#include "disk/FileSystemVolumes.h"
#include "disk/FolderState.h"
#include "integration/DeniabilityTestSupport.h"
#include "support/RunProcess.h"
#include "tasks/TaskQueue.h"
#include "toolkit/AtomicFile.h"
#include "vault/Schemas.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

std::string passwordOf(const DBSubdbRef& set) {
    std::string out;
    set->withPassword([&](std::string& p) { out = p; });
    return out;
}

std::string imageOf(const QVRecordRef& folder) {
    return DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
}

// A stored fake set of `folders` folders, each of which gets an image.
DBSubdbRef fakeSet(const DBMasterRef& master, uint32_t folders) {
    auto made = DBRandomSubdb::randomSubDB(master, {folders, folders}, QVScryptCheapParams);
    EXPECT_TRUE(made && master->addPreparedSubDB(made->subdb, made->lookup, made->blob, nullptr));
    return made->subdb;
}

QVRecordRef faceOf(const QVRecordRef& folder, const DBSubdbRef& set) {
    QVRecordSetSubdb(folder, set);
    QVRecordRef face = QVFolderFaceCreate(folder);
    FolderFaceRef{face}.setSubdb(Value(set));
    return face;
}

DBMasterRef newDatabaseWithRealSet() {
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    auto real = DBSubdb::subdbWithFolders({}, "real set");
    EXPECT_TRUE(master->addSubDB(real, true, nullptr) && real->save(nullptr));
    return master;
}

struct Finished {
    bool called = false, cancelled = false;
    std::optional<QVError> error;
};

} // namespace

TEST_F(DeniabilityTest, AFakeImageIsARealImageOfRandomFilesUnderItsOwnPassword) {
    DBMasterRef master = newDatabaseWithRealSet();
    DBSubdbRef set = fakeSet(master, 2);
    const auto folders = set->folders();
    const QVScryptParams tokenParams{11, 8, 1};
    OperationQueue queue;
    std::vector<OperationRef> ops;
    Finished done[2];
    for (int i = 0; i < 2; ++i) {
        auto completion = [&done, i](const std::optional<QVError>& e, bool c) { done[i] = {true, c, e}; };
        ops.push_back(FakeDiskImageTask::taskWithFolderFace(faceOf(folders[i], set), i == 0 ? 0.0 : 1.9, completion,
                                                            tokenParams));
        ASSERT_TRUE(addFolderTask(queue, ops.back()));
    }
    ASSERT_TRUE(processEventsUntil([&] { return ops[0]->isFinished() && ops[1]->isFinished(); }, 5 * 60 * 1000));
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(done[i].called && !done[i].cancelled);
        ASSERT_FALSE(done[i].error) << done[i].error->description;
    }
    EXPECT_EQ(images().size(), 2u);
    EXPECT_TRUE(listDirectory(data() + "/Data/Temp").empty()) << "no temporary mount point left";
    auto note = FakeImageNote::readNote();
    std::sort(note.begin(), note.end());
    std::vector<std::string> expected{imageOf(folders[0]), imageOf(folders[1])};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(note, expected) << "final only when the whole upgrade ends";

    std::set<Bytes> containers;
    for (int i = 0; i < 2; ++i) {
        const std::string image = imageOf(folders[i]);
        const std::string token = readFile(image + "/token");
        EXPECT_EQ(uint8_t(token[7]), tokenParams.logN) << "the token under the parameters handed down";
        DictRef info = QVDiskInfoRead(image, nullptr);
        ASSERT_TRUE(info);
        EXPECT_EQ(QVDictGet(*info, "password").toData(), FolderRef{folders[i]}.password().toData());
        EXPECT_EQ(QVDictGet(*info, "capacity").toInt(), 10737418240);
        containers.insert(QVDictGet(*info, "password").toData());

        // What it holds: nothing, or one file of 1 MiB for 1.9 bytes... of content asked for.
        auto pw = QVCrypto::decryptStringWithString(FolderRef{folders[i]}.password().toData(), passwordOf(set));
        ASSERT_TRUE(pw);
        const std::string mnt = sandbox.makeDir("check" + std::to_string(i));
        ASSERT_EQ(sandbox.attach(image, mnt, *pw).exitCode, 0);
        auto names = listDirectory(mnt);
        std::erase_if(names, [](const std::string& n) { return n == ".hidden" || n == "lost+found"; });
        if (i == 0) {
            EXPECT_TRUE(names.empty());
        } else {
            ASSERT_EQ(names, std::vector<std::string>{"f1.dat"});
            const std::string content = readFile(mnt + "/f1.dat");
            EXPECT_EQ(content.size(), 1048576u);
            EXPECT_EQ(content.find('\xff'), std::string::npos) << "no byte of the buffer is 255";
        }
        EXPECT_EQ(sandbox.detach(mnt).exitCode, 0);

        // The dates the creation left: nothing set earlier than a birth.
        for (const auto& entry : fs::recursive_directory_iterator(image)) {
            struct statx st {};
            ASSERT_EQ(::statx(AT_FDCWD, entry.path().c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &st), 0);
            if (st.stx_mask & STATX_BTIME) {
                EXPECT_GE(st.stx_mtime.tv_sec * 1000000000LL + st.stx_mtime.tv_nsec,
                          st.stx_btime.tv_sec * 1000000000LL + st.stx_btime.tv_nsec)
                    << entry.path();
            }
        }
    }
    EXPECT_EQ(containers.size(), 2u) << "two images, two password containers";
}

TEST_F(DeniabilityTest, ACancelBeforeTheDatesDeletesTheImageAndItsNoteEntry) {
    DBMasterRef master = newDatabaseWithRealSet();
    DBSubdbRef set = fakeSet(master, 2);
    QVRecordRef folder = set->folders()[0];
    OperationQueue queue;
    Finished done;
    auto op =
        FakeDiskImageTask::taskWithFolderFace(faceOf(folder, set), 2e9, [&](const std::optional<QVError>& e, bool c) {
            done = {true, c, e};
        });
    ASSERT_TRUE(addFolderTask(queue, op));
    // Cancelled while it fills the mounted volume.
    auto filling = [&] {
        const std::string temp = data() + "/Data/Temp";
        for (const auto& name : listDirectory(temp))
            if (isVolumeAtURL(temp + "/" + name, nullptr) && !listDirectory(temp + "/" + name).empty() &&
                fs::exists(temp + "/" + name + "/f1.dat"))
                return true;
        return false;
    };
    ASSERT_TRUE(processEventsUntil(filling, 3 * 60 * 1000));
    op->cancel();
    ASSERT_TRUE(processEventsUntil([&] { return op->isFinished(); }, 3 * 60 * 1000));
    EXPECT_TRUE(done.called && done.cancelled && !done.error);
    EXPECT_FALSE(fs::exists(imageOf(folder)));
    EXPECT_TRUE(FakeImageNote::readNote().empty());
    EXPECT_TRUE(images().empty());
}

TEST_F(DeniabilityTest, OneFailedImageStopsTheOthersAndTheUpgradeLeavesNothing) {
    DBMasterRef master = newDatabaseWithRealSet();
    const Bytes before = *QVReadFile(quillvaneURL(0), nullptr);
    RecordingView view;
    // The second asks for more room than any disk here has, and is refused at once.
    runUpgrade(master, view, {64 << 20, uint64_t(1) << 50, 64 << 20});
    ASSERT_TRUE(view.ended) << view.fatal;
    ASSERT_TRUE(view.endError);
    EXPECT_EQ(view.endError->code, QVErrorFailed);
    EXPECT_TRUE(view.endError->description.starts_with("Error creating fake disk images: Not enough space"))
        << view.endError->description;
    ASSERT_EQ(view.sheets.size(), 1u);
    EXPECT_TRUE(view.sheets[0].starts_with("Error in database migration: "));
    EXPECT_EQ(view.labels.back().first, "An error ocurred migrating Database!");
    EXPECT_TRUE(view.previousEnabled);
    EXPECT_TRUE(images().empty());
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL()));
    EXPECT_EQ(*QVReadFile(quillvaneURL(0), nullptr), before);
}

// The database a user builds: a set, the upgrade, two folders encrypted right
// away and used. None of the leaks the upgrade closes may tell the real
// objects from the fakes.
TEST_F(DeniabilityTest, TheExaminerCannotTellRealFromFakeByTheClosedLeaks) {
    DBMasterRef master = newDatabaseWithRealSet();
    PDAssistantSetup plan;
    plan.availableSpace = 10ull << 30;
    plan.setDiskUsage(700ull << 20);
    plan.updateDistribution(false);
    RecordingView view;
    runUpgrade(master, view, plan.folders);
    ASSERT_TRUE(view.ended && !view.endError) << (view.endError ? view.endError->description : view.fatal);
    const size_t fakes = images().size();
    ASSERT_EQ(fakes, plan.folders.size());

    // Two folders encrypted right away, then used: unlocked, written, locked.
    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef real = reopened->getSubDBWithPassword("real set", nullptr);
    ASSERT_TRUE(real);
    FolderList& list = FolderList::singleton();
    list.loadSubdb(real);
    for (const char* name : {"Letters", "Taxes"}) {
        const std::string path = home() + "/" + name;
        fs::create_directories(path);
        std::ofstream(path + "/note.txt") << "mine";
        QVRecordRef folder = QVFolderCreate(QVStorageForNewFolder(nullptr), URLValue{path});
        ASSERT_TRUE(list.encryptFolder(folder));
    }
    ASSERT_TRUE(processEventsUntil([] { return QVAppOperationQueue().operationCount() == 0; }, 5 * 60 * 1000));
    for (int round = 0; round < 2; ++round) {
        for (const auto& face : list.faces()) list.toggleFolderLockOfFolderFace(face);
        ASSERT_TRUE(processEventsUntil([] { return QVAppOperationQueue().operationCount() == 0; }, 5 * 60 * 1000));
        for (const auto& face : list.faces()) {
            const std::string path = FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath();
            if (isVolumeAtURL(path, nullptr)) std::ofstream(path + "/more.txt") << std::string(5 << 20, 'x');
        }
    }
    list.returnSubDB();
    ASSERT_EQ(images().size(), fakes + 2);
    EXPECT_FALSE(fs::exists(data() + "/Data/Temp")) << "the upgrade, like a real creation, leaves no Temp";

    auto r = runProcess({std::string(QV_SOURCE_DIR) + "/tools/examine", "--json", data()}, "");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const QJsonObject report = QJsonDocument::fromJson(QByteArray::fromStdString(r.out)).object();
    std::set<std::string> blobLengths, blobHeaders, tokenHeaders, containerHeaders, capacities, moved;
    auto header = [](const QJsonObject& h) {
        return std::to_string(h["logN"].toInt()) + " " + std::to_string(h["r"].toInt()) + " " +
               std::to_string(h["p"].toInt());
    };
    const QJsonArray sets = report["master"].toObject()["sets"].toArray();
    EXPECT_GE(sets.size(), 5);
    for (const auto& s : sets) {
        blobLengths.insert(std::to_string(s.toObject()["length"].toInt()));
        blobHeaders.insert(header(s.toObject()["scrypt"].toObject()));
    }
    for (const auto& i : report["images"].toArray()) {
        const QJsonObject image = i.toObject();
        tokenHeaders.insert(header(image["token"].toObject()["scrypt"].toObject()));
        containerHeaders.insert(header(image["diskinfo"].toObject()["password_scrypt"].toObject()));
        capacities.insert(std::to_string(image["info"].toObject()["size"].toDouble()));
        const QJsonObject bundle = image["items"].toObject()["."].toObject();
        moved.insert(bundle["ctime_ns"].toDouble() > bundle["mtime_ns"].toDouble() ? "moved" : "made in place");
        EXPECT_TRUE(image["marks"].toObject()["modified_before_birth"].toArray().isEmpty())
            << image["name"].toString().toStdString();
    }
    EXPECT_EQ(blobLengths.size(), 1u) << "set sizes say nothing";
    EXPECT_EQ(blobHeaders.size(), 1u) << "one measurement for every blob";
    EXPECT_EQ(tokenHeaders.size(), 1u);
    EXPECT_EQ(containerHeaders.size(), 1u);
    EXPECT_EQ(capacities.size(), 1u);
    EXPECT_EQ(moved, std::set<std::string>{"moved"}) << "every image made in Temp and moved into place";
    EXPECT_TRUE(report["diskinfo_passwords_shared"].toArray().isEmpty()) << "no two images share a container";
    EXPECT_FALSE(report["note"].toBool());
}

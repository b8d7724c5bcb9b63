// Encrypting through the folder list and task queue, with real images and the
// Trash in a private home, for what qv's own tests can't reach: a cancel through
// the face, a Trash that fails, and where a new image goes by default.
#include "tasks/EncryptFolderTask.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "vault/UserDefaults.h"
#include "disk/FolderState.h"
#include "disk/CopyEngine.h"
#include "vault/Locations.h"
#include "integration/DiskMasterTestSupport.h"
#include "support/TempHome.h"
#include "app/FolderList.h"
#include "vault/DBMaster.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

// Cancels the task through its face once its copy has begun.
struct CancelWhenCopying : QVRecordObserver {
    QVRecordRef face;
    bool cancelled = false;
    void recordWillChangeValueForKey(const QVRecord&, const std::string&) override {}
    void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) override {
        if (key == "statusText" && record.valueForKey(key).toString() == "Copying data...") {
            FolderFaceRef{face}.setOpCanceled(Value(true));
            cancelled = true;
        }
    }
};

class EncryptFolderTaskTest : public DiskMasterTest {
protected:
    void SetUp() override {
        DiskMasterTest::SetUp();
        ASSERT_TRUE(registerQuillvaneDefaults());
        QVError error;
        master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        ASSERT_TRUE(master && master->addSubDB(subdb, true, &error) && subdb->save(&error)) << error.description;
        list.loadSubdb(subdb);
        list.setQueue(&queue);
        FolderList::TaskMakers makers;
        makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
        list.setTaskMakers(makers);
    }
    void TearDown() override {
        EXPECT_TRUE(processEventsUntil([&] { return queue.operationCount() == 0; }, 10 * 60 * 1000));
        processEventsFor(300);
        list.returnSubDB();
        list.setTaskMakers({});
        list.setQueue(nullptr);
        QVCopySetStatusInterval(std::chrono::milliseconds(1000));
        DiskMasterTest::TearDown();
    }

    // Hands the folder to the list as the intake does and waits until its task
    // is done; `beforeRun` sees the new face before the task can take a step.
    void encrypt(const std::string& path, const std::function<void(const QVRecordRef&)>& beforeRun = {}) {
        EXPECT_TRUE(list.encryptFolder(QVFolderCreate(storage, URLValue{path})));
        if (beforeRun) beforeRun(list.faces().back());
        EXPECT_TRUE(processEventsUntil([&] { return queue.operationCount() == 0; }, 10 * 60 * 1000));
        processEventsFor(400);  // an error panel comes 0.2 seconds late
    }
    // The folders of the set as saved in the master file.
    size_t savedFolderCount() {
        QVError error;
        DBMasterRef reread = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), false, &error);
        DBSubdbRef set = reread ? reread->getSubDBWithPassword(kSetPassword, &error) : nullptr;
        EXPECT_TRUE(set) << error.description;
        const size_t count = set ? set->folders().size() : 0;
        if (set) reread->returnSubDB(set);
        return count;
    }
    std::string trashFiles() const { return home.dataHome() + "/Trash/files"; }

    TempHome home;
    RecordedNotifications notifications;
    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    DBMasterRef master;
};

} // namespace

TEST_F(EncryptFolderTaskTest, ACancelDuringTheCopyLeavesEverythingAsItWas) {
    const std::string folder = sandbox.makeDir("folders/Cancelled");
    for (int i = 0; i < 64; ++i) writeFileSynced(folder + "/file " + std::to_string(i), patternBytes(uint64_t(i), 256 * 1024));
    const TreeSnapshot before = snapshotTree(folder);
    QVCopySetStatusInterval(std::chrono::milliseconds(1));
    auto canceller = std::make_shared<CancelWhenCopying>();
    encrypt(folder, [&](const QVRecordRef& face) {
        canceller->face = face;
        face->addObserver(canceller, "statusText");
    });

    ASSERT_TRUE(canceller->cancelled) << "the copy never began";
    EXPECT_EQ(diffSnapshots(before, snapshotTree(folder)), "");
    EXPECT_FALSE(fs::exists(trashFiles() + "/Cancelled"));
    EXPECT_EQ(listDirectory(storageDir()), std::vector<std::string>{}) << "no image, no Temp";
    EXPECT_TRUE(list.faces().empty() && subdb->folders().empty());
    EXPECT_EQ(savedFolderCount(), 0u) << "the record saved at the start is gone from the file too";
    EXPECT_TRUE(notifications.shown().empty()) << "a cancel shows nothing";
}

TEST_F(EncryptFolderTaskTest, ATrashThatFailsDeletesTheFinishedImageAndKeepsTheSource) {
    writeFileSynced(home.dataHome() + "/Trash", "not a directory");
    const std::string folder = sandbox.makeDir("folders/Kept/inside");
    writeFileSynced(folder + "/note", "keep me");
    const TreeSnapshot before = snapshotTree(sandbox.path("folders/Kept"));
    const bool cwdHadFiles = fs::exists(fs::current_path() / "files");

    encrypt(sandbox.path("folders/Kept"));

    EXPECT_EQ(diffSnapshots(before, snapshotTree(sandbox.path("folders/Kept"))), "");
    EXPECT_EQ(fs::exists(fs::current_path() / "files"), cwdHadFiles) << "nothing put in the working directory instead";
    EXPECT_EQ(listDirectory(storageDir()), std::vector<std::string>{}) << "the finished image is deleted";
    EXPECT_TRUE(list.faces().empty());
    EXPECT_EQ(savedFolderCount(), 0u);
    const auto told = notifications.shown();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].type, int(QVNotificationCritical));
    EXPECT_EQ(told[0].text.rfind("Error creating disk image\n\nFailed to trash 'Kept':\n\n", 0), 0u) << told[0].text;
}

TEST_F(EncryptFolderTaskTest, TheDefaultDestinationAndTheTempDirectory) {
    QVRecordRef face = QVFolderFaceCreate(QVFolderCreate(storage, URLValue{sandbox.path("a/b/Folder")}));
    auto& defaults = QVUserDefaults::standardUserDefaults();
    EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), sandbox.path("a/Folder")) << "unset: parent's parent";
    writeFileSynced(sandbox.path("a-file"), "x");
    for (const std::string& unusable : {sandbox.path("a-file"), sandbox.path("missing")}) {
        defaults.setObject("QVDiskImageDestinationPath", Value(unusable));
        EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), sandbox.path("a/Folder")) << unusable;
    }
    const std::string images = sandbox.makeDir("images");
    defaults.setObject("QVDiskImageDestinationPath", Value(images + "/"));
    EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), images + "/Folder");

    // A Temp that another task is using stays; an empty one goes.
    const std::string temp = sandbox.makeDir("storage/Temp");
    writeFileSynced(temp + "/busy.sparsebundle", "");
    EncryptFolderTask::removeTempFolder(temp);
    EXPECT_TRUE(fs::exists(temp + "/busy.sparsebundle"));
    fs::remove(temp + "/busy.sparsebundle");
    EncryptFolderTask::removeTempFolder(temp);
    EXPECT_FALSE(fs::exists(temp));
}

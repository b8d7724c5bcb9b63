// Encrypting real folders through the folder list and the task queue, with real
// images, mounts and the desktop Trash in a sandboxed home: what is left on disk
// after a success, a cancel and a Trash that fails, and what the saved Folder
// Set says afterwards.
#include "tasks/EncryptFolderTask.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "app/UserDefaults.h"
#include "disk/CopyEngine.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/Locations.h"
#include "disk/TreeCompare.h"
#include "integration/DiskMasterTestSupport.h"
#include "ui/logic/FolderList.h"
#include "ui/logic/QVNotificationCenter.h"
#include "vault/DBMaster.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

constexpr const char* kTrashedText =
    "The original folder has been placed in the Trash.\n\nYou can securely delete it by selecting \"Secure Empty "
    "Trash...\" from the Finder menu.";

struct Recording : NotificationDelivery {
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> shown;  // type, message
    void deliver(const QVNotificationRef& n) override {
        std::lock_guard lock(mutex);
        shown.emplace_back(n->type(), n->msg());
    }
};
struct BuiltInWay : PreferencesProvider {
    Value fetchValueForPreference(const std::string& key) override {
        return key == "QVNotificationType" ? Value(int(QVNotificationWayBuiltIn)) : Value();
    }
};

// Cancels the task once its copy has begun.
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

// Puts the locations and settings back once the environment is back.
struct ForgetLocations {
    ~ForgetLocations() {
        QVLocationsForgetCache();
        QVUserDefaults::standardUserDefaults().reopen();
    }
};

class EncryptFolderTaskTest : public DiskMasterTest {
protected:
    void SetUp() override {
        DiskMasterTest::SetUp();
        fs::create_directories(dataHome());
        fs::create_directories(sandbox.path("home/.config"));
        QVLocationsForgetCache();
        QVUserDefaults::standardUserDefaults().reopen();
        ASSERT_TRUE(registerQuillvaneDefaults());

        QVError error;
        master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        ASSERT_TRUE(master) << error.description;
        subdb = DBSubdb::subdbWithFolders({}, kSetPassword);
        ASSERT_TRUE(master->addSubDB(subdb, true, &error)) << error.description;
        ASSERT_TRUE(subdb->save(&error)) << error.description;
        list.loadSubdb(subdb);
        list.setQueue(&queue);
        FolderList::TaskMakers makers;
        makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
        list.setTaskMakers(makers);

        auto& centre = QVNotificationCenter::defaultCenter();
        previousDelivery = centre.delivery(QVNotificationWayBuiltIn);
        centre.setDelivery(QVNotificationWayBuiltIn, messages);
        centre.setPreferencesProvider(std::make_shared<BuiltInWay>());
    }
    void TearDown() override {
        EXPECT_TRUE(processEventsUntil([&] { return queue.operationCount() == 0; }, 10 * 60 * 1000));
        processEventsFor(300);
        auto& centre = QVNotificationCenter::defaultCenter();
        centre.setDelivery(QVNotificationWayBuiltIn, previousDelivery);
        centre.setPreferencesProvider(nullptr);
        list.returnSubDB();
        list.setTaskMakers({});
        list.setQueue(nullptr);
        QVCopySetStatusInterval(std::chrono::milliseconds(1000));
        DiskMasterTest::TearDown();
    }

    std::string dataHome() const { return sandbox.path("home/.local/share"); }
    std::string trashFiles() const { return dataHome() + "/Trash/files"; }

    // Hands the folder to the list as the intake does, and waits until its task
    // is done while the main thread serves it. `beforeRun` sees the new face
    // before the task can take a step.
    QVRecordRef encrypt(const std::string& path, const std::function<void(const QVRecordRef&)>& beforeRun = {}) {
        QVRecordRef folder = QVFolderCreate(storage, URLValue{path});
        EXPECT_TRUE(list.encryptFolder(folder));
        QVRecordRef face = list.faces().back();
        if (beforeRun) beforeRun(face);
        EXPECT_TRUE(processEventsUntil([&] { return queue.operationCount() == 0; }, 10 * 60 * 1000));
        processEventsFor(400);  // an error panel comes 0.2 seconds late
        return face;
    }

    // The folders of the set as saved in the master file.
    std::vector<QVRecordRef> savedFolders() {
        QVError error;
        DBMasterRef reread = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), false, &error);
        EXPECT_TRUE(reread) << error.description;
        if (!reread) return {};
        DBSubdbRef set = reread->getSubDBWithPassword(kSetPassword, &error);
        EXPECT_TRUE(set) << error.description;
        if (!set) return {};
        auto folders = set->folders();
        reread->returnSubDB(set);
        return folders;
    }

    std::vector<std::pair<int, std::string>> shown() {
        std::lock_guard lock(messages->mutex);
        return messages->shown;
    }

    static void writeText(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }

    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    DBMasterRef master;
    std::shared_ptr<Recording> messages = std::make_shared<Recording>();
    std::shared_ptr<NotificationDelivery> previousDelivery;

    ForgetLocations forget;  // declared before the variables: runs after they are restored
    ScopedEnv homeEnv{"HOME", sandbox.path("home")};
    ScopedEnv dataEnv{"XDG_DATA_HOME", sandbox.path("home/.local/share")};
    ScopedEnv configEnv{"XDG_CONFIG_HOME", sandbox.path("home/.config")};
    ScopedEnv cacheEnv{"XDG_CACHE_HOME", sandbox.path("home/.cache")};
};

} // namespace

TEST_F(EncryptFolderTaskTest, TheFolderBecomesAnImageAndItsPathAnEmptyMountPoint) {
    const std::string folder = sandbox.path("folders/My Secrets");
    fs::create_directories(folder + "/sub dir/deeper");
    writeText(folder + "/plain.txt", "plain");
    writeText(folder + "/with\nnewline", "nl");
    writeText(folder + "/latin1-\xe9\xff", "not utf-8");
    writeText(folder + "/sub dir/deeper/.dotfile", std::string(70000, 'x'));
    fs::create_hard_link(folder + "/plain.txt", folder + "/sub dir/hard link");
    fs::create_symlink("../plain.txt", folder + "/sub dir/relative link");
    fs::create_symlink("/nowhere/at/all", folder + "/dangling");
    ASSERT_EQ(::setxattr((folder + "/plain.txt").c_str(), "user.colour", "teal", 4, 0), 0);
    fs::permissions(folder + "/sub dir/deeper/.dotfile", fs::perms::owner_read);
    fs::permissions(folder + "/sub dir", fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);

    QVRecordRef face = encrypt(folder);
    QVRecordRef record = folderOf(face);
    const std::string uuid = FolderRef{record}.uuid().toString();

    // The source is in the Trash, whole; its path is an empty directory.
    const std::string trashed = trashFiles() + "/My Secrets";
    ASSERT_TRUE(fs::is_directory(trashed));
    EXPECT_TRUE(fs::exists(dataHome() + "/Trash/info/My Secrets.trashinfo"));
    ASSERT_TRUE(fs::is_directory(folder));
    EXPECT_EQ(listDirectory(folder), std::vector<std::string>{});
    EXPECT_FALSE(isVolumeAtURL(folder, nullptr));

    // The image alone is in the storage: no Temp, no temporary mount point.
    const std::string image = storageDir() + "/" + uuid + ".sparsebundle";
    EXPECT_EQ(imageOf(face), image);
    EXPECT_EQ(listDirectory(storageDir()), std::vector<std::string>{uuid + ".sparsebundle"});

    // The row is at rest and the user was told.
    EXPECT_EQ(list.faces().size(), 1u);
    EXPECT_NE(FolderFaceRef{face}.statusText().toString().find(" used"), std::string::npos);
    EXPECT_FALSE(FolderFaceRef{face}.cancelable().toBool());
    EXPECT_TRUE(FolderFaceRef{face}.opCanceled().isNull());
    const auto told = shown();
    EXPECT_NE(std::find(told.begin(), told.end(), std::make_pair(int(QVNotificationAlert), std::string(kTrashedText))),
              told.end());
    EXPECT_NE(std::find(told.begin(), told.end(),
                        std::make_pair(int(QVNotificationInfo), std::string("Encrypted 'My Secrets'."))),
              told.end());
    EXPECT_EQ(told.size(), 2u);

    // Saved, encrypted, with the image's place.
    auto saved = savedFolders();
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_TRUE(FolderRef{saved[0]}.encrypted().toBool());
    EXPECT_EQ(FolderRef{saved[0]}.mountpoint().toURLPath(), folder);
    EXPECT_EQ(DiskInfoRef{FolderRef{saved[0]}.diskinfo().as<QVRecord>()}.url().toURLPath(), image);

    // The folder's own password: 30 to 40 printable characters, kept only
    // under the set's password.
    auto password = QVCrypto::decryptStringWithString(FolderRef{saved[0]}.password().toData(), kSetPassword);
    ASSERT_TRUE(password);
    EXPECT_GE(password->size(), 30u);
    EXPECT_LE(password->size(), 40u);
    EXPECT_TRUE(std::all_of(password->begin(), password->end(), [](char c) { return c >= 33 && c <= 126; }))
        << *password;

    // Unlocked, the folder shows what was in it; locked again, it is empty.
    QVError error;
    ASSERT_TRUE(offMainThread([&] { return DiskMaster::mountDiskForFolderFace(face, false, "", false, &error); }))
        << error.description;
    ASSERT_TRUE(isVolumeAtURL(folder, nullptr));
    std::vector<std::string> diffs;
    for (const auto& d : compareTrees(trashed, folder, {.wholeSeconds = true}))
        if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
    EXPECT_EQ(diffs, std::vector<std::string>{});
    ASSERT_TRUE(offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(face, "", false, false, &error); }))
        << error.description;
    EXPECT_FALSE(isVolumeAtURL(folder, nullptr));
    EXPECT_EQ(listDirectory(folder), std::vector<std::string>{});
}

TEST_F(EncryptFolderTaskTest, ACancelDuringTheCopyLeavesEverythingAsItWas) {
    const std::string folder = sandbox.path("folders/Cancelled");
    fs::create_directories(folder);
    for (int i = 0; i < 64; ++i)
        writeText(folder + "/file " + std::to_string(i), patternBytes(uint64_t(i), 256 * 1024));
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
    EXPECT_TRUE(list.faces().empty());
    EXPECT_TRUE(subdb->folders().empty());
    EXPECT_TRUE(savedFolders().empty()) << "the record saved at the start is gone from the file too";
    EXPECT_EQ(shown(), (std::vector<std::pair<int, std::string>>{})) << "a cancel shows nothing";
}

TEST_F(EncryptFolderTaskTest, ATrashThatFailsDeletesTheFinishedImageAndKeepsTheSource) {
    writeText(dataHome() + "/Trash", "not a directory");
    const std::string folder = sandbox.path("folders/Kept");
    fs::create_directories(folder + "/inside");
    writeText(folder + "/inside/note", "keep me");
    const TreeSnapshot before = snapshotTree(folder);
    const fs::path cwd = fs::current_path();
    const bool cwdHadFiles = fs::exists(cwd / "files");

    encrypt(folder);

    EXPECT_EQ(diffSnapshots(before, snapshotTree(folder)), "");
    EXPECT_EQ(fs::exists(cwd / "files"), cwdHadFiles) << "nothing was put in the working directory instead";
    EXPECT_TRUE(fs::is_regular_file(dataHome() + "/Trash"));
    EXPECT_EQ(listDirectory(storageDir()), std::vector<std::string>{}) << "the finished image is deleted";
    EXPECT_TRUE(list.faces().empty());
    EXPECT_TRUE(savedFolders().empty());
    const auto told = shown();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].first, int(QVNotificationCritical));
    EXPECT_EQ(told[0].second.rfind("Error creating disk image\n\nFailed to trash 'Kept':\n\n", 0), 0u)
        << told[0].second;
}

TEST_F(EncryptFolderTaskTest, TheDefaultDestinationAndTheTempDirectory) {
    QVRecordRef folder = QVFolderCreate(storage, URLValue{sandbox.path("a/b/Folder")});
    QVRecordRef face = QVFolderFaceCreate(folder);
    auto& defaults = QVUserDefaults::standardUserDefaults();
    EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), sandbox.path("a/Folder")) << "unset: parent's parent";
    writeText(sandbox.path("a-file"), "x");
    for (const std::string& unusable : {sandbox.path("a-file"), sandbox.path("missing")}) {
        defaults.setObject("QVDiskImageDestinationPath", Value(unusable));
        EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), sandbox.path("a/Folder")) << unusable;
    }
    const std::string images = sandbox.makeDir("images");
    defaults.setObject("QVDiskImageDestinationPath", Value(images + "/"));
    EXPECT_EQ(EncryptFolderTask::diskDefaultDestination(face), images + "/Folder");

    // A Temp that another task is using stays; an empty one goes.
    const std::string temp = sandbox.makeDir("storage/Temp");
    writeText(temp + "/busy.sparsebundle", "");
    EncryptFolderTask::removeTempFolder(temp);
    EXPECT_TRUE(fs::exists(temp + "/busy.sparsebundle"));
    fs::remove(temp + "/busy.sparsebundle");
    EncryptFolderTask::removeTempFolder(temp);
    EXPECT_FALSE(fs::exists(temp));
}

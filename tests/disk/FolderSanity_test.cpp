// The records against the disk: every answer of the sanity check with real
// directories (a folder "is unlocked" when its mount point is a real mount point
// such as /proc), what it repairs and shows, the size walk's reports and cancel,
// free space, and the folder list's status line at rest.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "disk/FolderSanity.h"
#include "disk/Locations.h"
#include "disk/StorageLocations.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "ui/logic/FolderList.h"
#include "ui/logic/NotificationDelivery.h"
#include "ui/logic/QVNotificationCenter.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"
#include "vault/QVRecord.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

class CaptureDelivery : public NotificationDelivery {
public:
    void deliver(const QVNotificationRef& notification) override {
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(notification->msg());
    }
    std::vector<std::string> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
    std::mutex mutex;
    std::vector<std::string> messages;
};

// Every status line a face is given, in order (they are set on the main thread).
class StatusRecorder : public QVRecordObserver {
public:
    void recordWillChangeValueForKey(const QVRecord&, const std::string&) override {}
    void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) override {
        if (key == "statusText") texts.push_back(record.valueForKey(key).toString());
    }
    std::vector<std::string> texts;
};

// A private home, the test application, the log and every alert, for one case.
class FolderSanity : public ::testing::Test {
protected:
    void SetUp() override {
        test::qtApp();
        capture = std::make_shared<CaptureDelivery>();
        auto& centre = QVNotificationCenter::defaultCenter();
        for (int way = 0; way < QVNotificationWayCount; ++way) {
            saved.push_back(centre.delivery(way));
            centre.setDelivery(way, capture);
        }
        QVLogSetSink([this](const std::string& line) {
            std::lock_guard<std::mutex> lock(logMutex);
            lines.push_back(line);
        });
    }
    void TearDown() override {
        test::processEventsFor(20);  // nothing posted by this case may reach the next
        QVLogSetSink(nullptr);
        auto& centre = QVNotificationCenter::defaultCenter();
        for (int way = 0; way < QVNotificationWayCount; ++way) centre.setDelivery(way, saved[size_t(way)]);
    }

    bool logged(const std::string& text) {
        std::lock_guard<std::mutex> lock(logMutex);
        for (const auto& line : lines)
            if (line.find(text) != std::string::npos) return true;
        return false;
    }
    size_t logCount() {
        std::lock_guard<std::mutex> lock(logMutex);
        return lines.size();
    }

    // A folder of the default storage at `mountpoint`, its image at the usual place
    // (made when `withImage`), encrypted as told.
    QVRecordRef makeFolder(const std::string& mountpoint, bool encrypted, bool withImage) {
        QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{mountpoint});
        QVRecordRef info = QVDiskInfoForFolder(folder);
        FolderRef{folder}.setDiskinfo(Value(info));
        FolderRef{folder}.setEncrypted(Value(encrypted));
        if (withImage) fs::create_directories(DiskInfoRef{info}.url().toURLPath());
        return folder;
    }
    QVRecordRef makeFace(const QVRecordRef& folder, bool locked) {
        QVRecordRef face = QVFolderFaceCreate(folder);
        FolderFaceRef{face}.setLocked(Value(locked));
        return face;
    }
    std::string privateDir(const std::string& name = "Private") {
        std::string dir = home.root() + "/" + name;
        fs::create_directories(dir);
        return dir;
    }
    // Runs what the check posted to the main thread.
    void settle() { test::processEventsFor(30); }

    test::TempHome home;
    std::shared_ptr<CaptureDelivery> capture;
    std::vector<std::shared_ptr<NotificationDelivery>> saved;
    std::mutex logMutex;
    std::vector<std::string> lines;
};

// A directory that can be reached while "<it>/.." is too long a name: asking
// whether it is a mount point fails with ENAMETOOLONG.
std::string directoryTooDeepToExamine(const std::string& base) {
    std::string path = base;
    while (path.size() < 3900) {
        path += "/" + std::string(100, 'd');
        fs::create_directory(path);
    }
    path += "/" + std::string(4094 - path.size() - 1, 'e');
    fs::create_directory(path);
    return path;  // 4094 characters
}

} // namespace

TEST_F(FolderSanity, ANullFaceIsRefusedWithItsOwnCode) {
    QVError error;
    EXPECT_EQ(sanityCheckFolderFace(nullptr, &error), 2003);
    EXPECT_EQ(error.code, 2003);
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.description, "Internal Error: Nil parameter passed in.");
    EXPECT_TRUE(logged("failed because: !ff"));
    EXPECT_EQ(sanityCheckFolderFace(nullptr, nullptr), 2003);

    EXPECT_EQ(folderSizeOfFolderFace(nullptr, true, &error), UINT64_MAX);
    EXPECT_EQ(error.code, QVErrorFailed);
}

TEST_F(FolderSanity, AnUnencryptedRecordWithoutAnImageIsLeftInSilence) {
    QVRecordRef folder = makeFolder(home.root() + "/nowhere", false, false);
    QVRecordRef face = makeFace(folder, true);
    QVError error{"untouched", 7, "untouched"};
    EXPECT_EQ(sanityCheckFolderFace(face, &error), 0) << "not even a missing mount point matters yet";
    settle();
    EXPECT_EQ(error.code, 7);
    EXPECT_EQ(logCount(), 0u);
    EXPECT_TRUE(capture->taken().empty());
    EXPECT_FALSE(FolderRef{folder}.encrypted().toBool());
    EXPECT_TRUE(FolderFaceRef{face}.statusText().isNull());
}

TEST_F(FolderSanity, AnUnencryptedRecordWithAnImageIsRepairedSavedAndCheckedAgain) {
    // A real Folder Set in a real master file, so that the repair's save can be read back.
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    ASSERT_TRUE(master);
    DBSubdbRef set = DBSubdb::subdbWithFolders({}, "set password");
    QVRecordRef folder = makeFolder(home.root() + "/gone", false, true);
    ASSERT_TRUE(set->addFolder(folder));
    QVError error;
    ASSERT_TRUE(master->addSubDB(set, true, &error)) << error.description;
    ASSERT_TRUE(set->save(&error)) << error.description;

    QVRecordRef face = makeFace(folder, false);
    EXPECT_EQ(sanityCheckFolderFace(face, &error), 2001) << "the second pass finds the mount point missing";
    EXPECT_TRUE(FolderRef{folder}.encrypted().toBool()) << "marked before the call returned";
    EXPECT_TRUE(logged("folder 'gone' was set as not being encrypted when it has a disk image associated with it: " +
                       DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath()));
    EXPECT_TRUE(test::processEventsUntil([&] { return !capture->taken().empty(); }));
    settle();
    EXPECT_EQ(capture->taken(), std::vector<std::string>{
                                    "Internal Issue: 'gone' supposedly not encrypted but has disk image associated with it!"})
        << "one alert, although the check ran twice";
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Mountpoint missing!");

    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    ASSERT_TRUE(reopened);
    DBSubdbRef fromDisk = reopened->getSubDBWithPassword("set password", &error);
    ASSERT_TRUE(fromDisk) << error.description;
    ASSERT_EQ(fromDisk->folders().size(), 1u);
    EXPECT_TRUE(FolderRef{fromDisk->folders()[0]}.encrypted().toBool()) << "the repair reached the master file";
    reopened->returnSubDB(fromDisk);

    // A record that belongs to no set is still marked; the failed save is logged.
    QVRecordRef loose = makeFolder(privateDir(), false, true);
    EXPECT_EQ(sanityCheckFolderFace(makeFace(loose, true), &error), 0);
    EXPECT_TRUE(FolderRef{loose}.encrypted().toBool());
    EXPECT_TRUE(logged("it belongs to no Folder Set"));
}

TEST_F(FolderSanity, AMissingMountPointOrImageIsShownAsAnErrorAndAnswered) {
    const std::string gone = home.root() + "/Gone Folder";
    QVRecordRef face = makeFace(makeFolder(gone, true, true), false);
    QVError error;
    EXPECT_EQ(sanityCheckFolderFace(face, &error), 2001);
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, ENOENT) << "the underlying code, not the answer";
    EXPECT_EQ(error.description, "Mountpoint for 'Gone Folder' is not reachable:\n\n" + gone +
                                     ": No such file or directory\n\nIt should be here:\n\n" + gone);
    EXPECT_TRUE(logged("folder mountpoint unreachable '" + gone + "': "));
    EXPECT_FALSE(FolderFaceRef{face}.locked().toBool()) << "changed on the main thread, after the call";
    settle();
    EXPECT_TRUE(FolderFaceRef{face}.locked().toBool());
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Mountpoint missing!");
    EXPECT_TRUE(FolderList::isErrorStatusColor(FolderFaceRef{face}.statusColor()));

    QVRecordRef noImageFolder = makeFolder(privateDir(), true, false);
    QVRecordRef noImage = makeFace(noImageFolder, true);
    const std::string image = DiskInfoRef{FolderRef{noImageFolder}.diskinfo().as<QVRecord>()}.url().toURLPath();
    EXPECT_EQ(sanityCheckFolderFace(noImage, &error), 2002);
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_EQ(error.description, "Disk image for 'Private' is not reachable:\n\n" + image +
                                     ": No such file or directory\n\nIt should be here:\n\n" + image);
    EXPECT_TRUE(logged("dmg '" + image + "' for 'Private' unavailable: "));
    settle();
    EXPECT_EQ(FolderFaceRef{noImage}.statusText().toString(), "Diskimage missing!");
    EXPECT_TRUE(FolderList::isErrorStatusColor(FolderFaceRef{noImage}.statusColor()));
    EXPECT_TRUE(FolderFaceRef{noImage}.locked().toBool()) << "in sync: nothing to change";

    QVRecordRef noDiskInfo = makeFolder(privateDir(), true, false);
    FolderRef{noDiskInfo}.setDiskinfo(Value());
    EXPECT_EQ(sanityCheckFolderFace(makeFace(noDiskInfo, true), nullptr), 2002) << "a record without an image";
    EXPECT_TRUE(capture->taken().empty()) << "missing pieces are shown in the row, not as alerts";
}

TEST_F(FolderSanity, TheMountTableWinsOverTheLockedFlagBothWays) {
    // Mounted (/proc really is a mount point) while the face says locked.
    QVRecordRef mounted = makeFace(makeFolder("/proc", true, true), true);
    EXPECT_EQ(sanityCheckFolderFace(mounted, nullptr), 0);
    EXPECT_TRUE(logged("locked value was out of sync with reality for folder: /proc"));
    settle();
    EXPECT_FALSE(FolderFaceRef{mounted}.locked().toBool());

    // A plain directory while the face says unlocked.
    QVRecordRef plain = makeFace(makeFolder(privateDir(), true, true), false);
    EXPECT_EQ(sanityCheckFolderFace(plain, nullptr), 0);
    settle();
    EXPECT_TRUE(FolderFaceRef{plain}.locked().toBool());

    // In sync: no word, no change, and the status line is left alone.
    size_t before = logCount();
    QVRecordRef fine = makeFace(makeFolder(privateDir("Fine"), true, true), true);
    FolderList::singleton().setStatusText("as it was", false, fine);
    EXPECT_EQ(sanityCheckFolderFace(fine, nullptr), 0);
    settle();
    EXPECT_EQ(logCount(), before);
    EXPECT_TRUE(FolderFaceRef{fine}.locked().toBool());
    EXPECT_EQ(FolderFaceRef{fine}.statusText().toString(), "as it was");
}

TEST_F(FolderSanity, AnUnknownLockStateStopsOnlyACallerWhoCanBeToldWhy) {
    const std::string deep = directoryTooDeepToExamine(home.root());
    QVRecordRef folder = makeFolder(deep, true, true);

    QVError error;
    EXPECT_FALSE(QVFolderIsUnlocked(folder, &error));
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, ENAMETOOLONG);
    EXPECT_EQ(error.description.rfind("Couldn't figure out if folder is locked or unlocked. Reason:\n\nisVolume failed", 0),
              0u)
        << error.description;

    QVRecordRef face = makeFace(folder, true);
    error = QVError();
    EXPECT_EQ(sanityCheckFolderFace(face, &error), 2000);
    EXPECT_EQ(error.code, ENAMETOOLONG);
    // Without an out-parameter the check goes on: the state reads as locked, which
    // the face already says, and the image is there.
    EXPECT_EQ(sanityCheckFolderFace(face, nullptr), 0);

    EXPECT_TRUE(QVFolderIsUnlocked(makeFolder("/dev", true, false), &error));
    error = QVError();
    EXPECT_FALSE(QVFolderIsUnlocked(makeFolder(privateDir(), true, false), &error));
    EXPECT_TRUE(error.empty()) << "a plain directory is a plain answer";
    EXPECT_FALSE(QVFolderIsUnlocked(makeFolder(home.root() + "/absent", true, false), &error));
    EXPECT_TRUE(error.empty());
    EXPECT_FALSE(QVFolderIsUnlocked(nullptr, &error));
}

TEST_F(FolderSanity, SizeReportsPastEachMarkAndEndsWithTheTotal) {
    const std::string dir = privateDir();
    // Six sparse files of 150 MiB: the walk sees 0, 150, ... 750 MiB before them.
    for (int i = 0; i < 6; ++i) {
        std::string file = dir + "/f" + std::to_string(i);
        { std::ofstream touch(file); }
        fs::resize_file(file, 150ull << 20);
    }
    QVRecordRef face = makeFace(makeFolder(dir, true, true), true);
    auto recorder = std::make_shared<StatusRecorder>();
    face->addObserver(recorder, "statusText");

    QVError error;
    EXPECT_EQ(folderSizeOfFolderFace(face, true, &error), 900ull << 20);
    settle();
    // The first report past 200 MiB (at 300), the next once past 300 + 200 + 200.
    EXPECT_EQ(recorder->texts, (std::vector<std::string>{"Calculating size...", "Calculating... 314.6 MB",
                                                         "Calculating... 786.4 MB", "Size: 943.7 MB"}));

    recorder->texts.clear();
    EXPECT_EQ(folderSizeOfFolderFace(face, false, &error), 900ull << 20);
    settle();
    EXPECT_TRUE(recorder->texts.empty()) << "silent when not asked to report";

    const std::string empty = privateDir("Empty");
    QVRecordRef emptyFace = makeFace(makeFolder(empty, true, true), true);
    emptyFace->addObserver(recorder, "statusText");
    EXPECT_EQ(folderSizeOfFolderFace(emptyFace, true, &error), 0u) << "0 is a size, not a failure";
    settle();
    EXPECT_EQ(recorder->texts.back(), "Size: 0 bytes");
}

TEST_F(FolderSanity, ACancelledOrFailedSizeWalkGivesNoSize) {
    const std::string dir = privateDir();
    for (int i = 0; i < 3; ++i) std::ofstream(dir + "/f" + std::to_string(i)) << "data";
    QVRecordRef face = makeFace(makeFolder(dir, true, true), true);
    FolderFaceRef{face}.setOpCanceled(Value(true));
    auto recorder = std::make_shared<StatusRecorder>();
    face->addObserver(recorder, "statusText");

    QVError error;
    EXPECT_EQ(folderSizeOfFolderFace(face, true, &error), UINT64_MAX) << "the partial total is not the size";
    EXPECT_EQ(error.code, 1000);
    EXPECT_EQ(error.description, "User canceled size calculation");
    settle();
    EXPECT_EQ(recorder->texts, (std::vector<std::string>{"Calculating size...", "Cancelling..."}));
    EXPECT_TRUE(FolderFaceRef{face}.progressIndeterminate().toBool());

    recorder->texts.clear();
    error = QVError();
    EXPECT_EQ(folderSizeOfFolderFace(face, false, &error), UINT64_MAX);
    EXPECT_EQ(error.code, 1000);
    settle();
    EXPECT_TRUE(recorder->texts.empty());

    const std::string gone = home.root() + "/gone";
    error = QVError();
    EXPECT_EQ(folderSizeOfFolderFace(makeFace(makeFolder(gone, true, true), true), false, &error), UINT64_MAX);
    EXPECT_EQ(error.code, -1);
    EXPECT_EQ(error.description, "Failed to calculate folder size, see console for specific reason");
    EXPECT_TRUE(logged("failed to calculate size of: " + gone));
}

TEST_F(FolderSanity, FreeSpaceOfAStorage) {
    EXPECT_GT(QVStorageAvailableBytes(QVStorageDefault()), 0) << "the Data directory is there from the start";
    EXPECT_EQ(QVStorageAvailableBytes(QVStorageMake("x", URLValue{home.root() + "/absent"})), -1);
    EXPECT_TRUE(logged("statvfs returned: 2 for: '" + home.root() + "/absent'"));
    EXPECT_EQ(QVStorageAvailableBytes(nullptr), -1);
    EXPECT_TRUE(logged("failed because: !storage.url"));
}

TEST_F(FolderSanity, TheFolderListShowsTheRowAtRest) {
    FolderList& list = FolderList::singleton();
    EXPECT_EQ(&list, &FolderList::singleton());
    QVRecordRef folder = makeFolder(privateDir(), true, true);
    FolderRef{folder}.setFolderSize(Value(500000000));
    DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setCapacity(Value(2000000000));
    QVRecordRef face = makeFace(folder, true);
    FolderFaceRef ff{face};
    ff.setProgressAnimate(Value(true));
    ff.setProgressIndeterminate(Value(true));

    list.setStatusText("Broken", true, face);
    EXPECT_EQ(ff.statusText().toString(), "Broken");
    EXPECT_TRUE(ff.statusColor() == FolderList::errorStatusColor()) << "the one shared error colour";

    list.displayFolderSizeInfo(face);
    EXPECT_FALSE(ff.progressAnimate().toBool());
    EXPECT_FALSE(ff.progressIndeterminate().toBool());
    EXPECT_DOUBLE_EQ(ff.progressPercentage().toDouble(), 0.25);
    EXPECT_EQ(ff.statusText().toString(), "500.0 MB of 2.0 GB used");
    EXPECT_TRUE(ff.statusColor() == FolderList::normalStatusColor());
    EXPECT_FALSE(FolderList::isErrorStatusColor(ff.statusColor()));
    EXPECT_TRUE(FolderList::isErrorStatusColor(Value(std::make_shared<QVColor>(0.8, 0.06, 0.13, 1.0))));

    // No capacity known yet (a folder being encrypted): an empty bar, not a division by zero.
    DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setCapacity(Value());
    list.displayFolderSizeInfo(face);
    EXPECT_DOUBLE_EQ(ff.progressPercentage().toDouble(), 0.0);
    EXPECT_EQ(ff.statusText().toString(), "500.0 MB of 0 bytes used");

    list.setStatusText("ignored", false, nullptr);
    list.displayFolderSizeInfo(nullptr);
}

// The records against the disk, with real directories: a folder "is unlocked"
// when its mount point really is one (/proc, /dev). The sanity check's answers,
// repairs and row texts; the size walk's reports and cancel; the row at rest.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "automation/AutomationTestSupport.h"
#include "disk/FolderSanity.h"
#include "vault/Locations.h"
#include "disk/StorageLocations.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "app/FolderList.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

// Every status line a face is given, in order.
struct StatusTexts : QVRecordObserver {
    void recordWillChangeValueForKey(const QVRecord&, const std::string&) override {}
    void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) override {
        texts.push_back(record.valueForKey(key).toString());
    }
    std::vector<std::string> texts;
};

class FolderSanity : public ::testing::Test {
protected:
    void SetUp() override { test::qtApp(); }
    void TearDown() override { settle(); }
    // Runs what was posted to the main thread.
    void settle() { test::processEventsFor(30); }

    // A face on a folder of the default storage, its image made when `withImage`.
    QVRecordRef face(const std::string& mountpoint, bool encrypted, bool withImage, bool locked) {
        QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{mountpoint});
        FolderRef{folder}.setDiskinfo(Value(QVDiskInfoForFolder(folder)));
        FolderRef{folder}.setEncrypted(Value(encrypted));
        if (withImage) fs::create_directories(imageOf(folder));
        QVRecordRef ff = QVFolderFaceCreate(folder);
        FolderFaceRef{ff}.setLocked(Value(locked));
        return ff;
    }
    static QVRecordRef folderOf(const QVRecordRef& ff) { return FolderFaceRef{ff}.folder().as<QVRecord>(); }
    static std::string imageOf(const QVRecordRef& folder) {
        return DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
    }
    std::string dir(const std::string& name) {
        fs::create_directories(home.root() + "/" + name);
        return home.root() + "/" + name;
    }

    test::TempHome home;
    test::RecordedNotifications notifications;
};

} // namespace

TEST_F(FolderSanity, AnUnencryptedRecordWithAnImageIsRepairedSavedAndCheckedAgain) {
    QVError error;
    EXPECT_EQ(sanityCheckFolderFace(nullptr, &error), 2003);
    EXPECT_EQ(sanityCheckFolderFace(face(home.root() + "/nowhere", false, false, false), &error), 0)
        << "without an image not even a missing mount point matters yet";

    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef set = DBSubdb::subdbWithFolders({}, "set password");
    QVRecordRef ff = face(home.root() + "/gone", false, true, false);
    ASSERT_TRUE(set->addFolder(folderOf(ff)));
    ASSERT_TRUE(master->addSubDB(set, true, nullptr) && set->save(nullptr));
    EXPECT_EQ(sanityCheckFolderFace(ff, &error), 2001) << "the second pass finds the mount point missing";
    settle();
    EXPECT_EQ(notifications.texts(), std::vector<std::string>{
                                 "Internal Issue: 'gone' supposedly not encrypted but has disk image associated with it!"})
        << "one alert, although the check ran twice";
    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef fromDisk = reopened->getSubDBWithPassword("set password", nullptr);
    ASSERT_TRUE(fromDisk && fromDisk->folders().size() == 1);
    EXPECT_TRUE(FolderRef{fromDisk->folders()[0]}.encrypted().toBool()) << "the repair reached the master file";
    reopened->returnSubDB(fromDisk);
}

TEST_F(FolderSanity, AMissingMountPointOrImageIsShownInTheRowAndAnswered) {
    const std::string gone = home.root() + "/Gone Folder";
    QVRecordRef ff = face(gone, true, true, false);
    QVError error;
    EXPECT_EQ(sanityCheckFolderFace(ff, &error), 2001);
    EXPECT_EQ(error.code, ENOENT) << "the underlying code, not the answer";
    EXPECT_EQ(error.description, "Mountpoint for 'Gone Folder' is not reachable:\n\n" + gone +
                                     ": No such file or directory\n\nIt should be here:\n\n" + gone);
    settle();
    EXPECT_EQ(FolderFaceRef{ff}.statusText().toString(), "Mountpoint missing!");

    QVRecordRef noImage = face(dir("Private"), true, false, true);
    EXPECT_EQ(sanityCheckFolderFace(noImage, &error), 2002);
    settle();
    EXPECT_EQ(FolderFaceRef{noImage}.statusText().toString(), "Diskimage missing!");
    EXPECT_TRUE(QVIsErrorStatusColor(FolderFaceRef{noImage}.statusColor()));
    EXPECT_TRUE(notifications.shown().empty()) << "missing pieces are shown in the row, not as alerts";
}

TEST_F(FolderSanity, TheMountTableWinsOverLockedAndAnUnknownStateStopsOnlyWhoCanBeToldWhy) {
    QVRecordRef mounted = face("/proc", true, true, true);
    QVRecordRef plain = face(dir("Plain"), true, true, false);
    for (const auto& ff : {mounted, plain}) EXPECT_EQ(sanityCheckFolderFace(ff, nullptr), 0);
    settle();
    EXPECT_FALSE(FolderFaceRef{mounted}.locked().toBool());
    EXPECT_TRUE(FolderFaceRef{plain}.locked().toBool());

    // A directory that can be reached while "<it>/.." is too long a name to ask about.
    std::string deep = home.root();
    while (deep.size() < 3900) fs::create_directory(deep += "/" + std::string(100, 'd'));
    fs::create_directory(deep += "/" + std::string(4094 - deep.size() - 1, 'e'));
    QVRecordRef unknown = face(deep, true, true, true);
    QVError error;
    EXPECT_EQ(sanityCheckFolderFace(unknown, &error), 2000);
    EXPECT_EQ(error.code, ENAMETOOLONG);
    EXPECT_EQ(sanityCheckFolderFace(unknown, nullptr), 0) << "no out-parameter: the test is skipped";
}

TEST_F(FolderSanity, SizeReportsPastEachMarkAndGivesNoSizeWhenCancelledOrFailedAndFreeSpace) {
    const std::string big = dir("Big");
    for (int i = 0; i < 6; ++i) {  // sparse: the walk sees 0, 150, ... 750 MiB before each
        std::ofstream(big + "/f" + std::to_string(i)).close();
        fs::resize_file(big + "/f" + std::to_string(i), 150ull << 20);
    }
    QVRecordRef ff = face(big, true, true, true);
    auto status = std::make_shared<StatusTexts>();
    ff->addObserver(status, "statusText");
    EXPECT_EQ(folderSizeOfFolderFace(ff, true, nullptr), 900ull << 20);
    settle();
    // The first report past 200 MiB (at 300), the next only past 300 + 200 + 200.
    EXPECT_EQ(status->texts, (std::vector<std::string>{"Calculating size...", "Calculating... 314.6 MB",
                                                       "Calculating... 786.4 MB", "Size: 943.7 MB"}));

    FolderFaceRef{ff}.setOpCanceled(Value(true));
    QVError error;
    EXPECT_EQ(folderSizeOfFolderFace(ff, true, &error), UINT64_MAX) << "the partial total is not the size";
    EXPECT_EQ(error.code, 1000);
    EXPECT_EQ(folderSizeOfFolderFace(face(dir("Empty"), true, true, true), false, &error), 0u) << "0 is a size";
    EXPECT_EQ(folderSizeOfFolderFace(face(home.root() + "/gone", true, true, true), false, &error), UINT64_MAX);
    EXPECT_GT(QVStorageAvailableBytes(QVStorageDefault()), 0);
    EXPECT_EQ(QVStorageAvailableBytes(QVStorageMake("x", URLValue{home.root() + "/absent"})), -1);
}

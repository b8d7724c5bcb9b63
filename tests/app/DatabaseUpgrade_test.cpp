// The upgrade at start: a database that needs it is flagged before anything is
// done with it, and what an interrupted run left is cleaned away: its images
// while the old file stands, only the note once the new one was written; and
// the assistant never starts without a backup.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/DatabaseUpgrade.h"
#include "app/Startup.h"
#include "deniability/FakeImageNote.h"
#include "deniability/MigrationTestSupport.h"
#include "support/TempHome.h"
#include "vault/Locations.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

void saveDatabase(size_t sets) {
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    for (size_t i = 0; i < sets; ++i)
        ASSERT_TRUE(master->addSubDB(DBSubdb::subdbWithFolders({}, "set " + std::to_string(i)), false, nullptr));
    ASSERT_TRUE(master->archiveMasterDBToURL(quillvaneURL(0), nullptr));
}

std::string leftImage() {
    const std::string image = defaultDiskImageLocationURL() + "/LEFT.sparsebundle";
    fs::create_directories(image + "/bands");
    FakeImageNote::writeNote({image});
    return image;
}

} // namespace

TEST(DatabaseUpgradeAtStart, AnInterruptedRunIsCleanedAwayAccordingToTheFileOnDisk) {
    test::TempHome home;
    saveDatabase(1);
    std::string image = leftImage();
    QVLaunchResult launch = QVOpenMasterDatabaseAtLaunch(nullptr);
    ASSERT_TRUE(launch.master);
    EXPECT_TRUE(launch.needsUpgrade);
    EXPECT_FALSE(fs::exists(image)) << "the old file stands: the images belong to nobody";
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL()));

    saveDatabase(3);
    image = leftImage();
    launch = QVOpenMasterDatabaseAtLaunch(nullptr);
    EXPECT_FALSE(launch.needsUpgrade);
    EXPECT_TRUE(fs::exists(image)) << "the new file was written: its images stay";
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL()));

    // While another process upgrades, its note is left alone.
    image = leftImage();
    auto mark = QVHoldUpgradeMark();
    ASSERT_TRUE(mark);
    saveDatabase(1);
    launch = QVOpenMasterDatabaseAtLaunch(nullptr);
    EXPECT_TRUE(fs::exists(image));
    EXPECT_TRUE(fs::exists(fakeImagesNoteURL()));
}

TEST(DatabaseUpgradeAtStart, NoBackupNoUpgrade) {
    test::TempHome home;
    saveDatabase(1);
    const PDAssistantHost installed = QVPDAssistantHost();
    PDAssistantHost failing = installed;
    failing.backupDatabase = [] { return false; };
    QVSetPDAssistantHost(failing);
    test::RecordingView view;
    auto assistant =
        std::make_shared<PDAssistant>(DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr), view, true);
    assistant->start();
    QVSetPDAssistantHost(installed);
    EXPECT_FALSE(view.fatal.empty());
    EXPECT_FALSE(assistant->migrationOperation()) << "nothing queued";
    EXPECT_FALSE(view.nextEnabled);
}

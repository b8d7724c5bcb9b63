// Start-up operations of the application core: locations, defaults, moving
// the previous version's data, and the dated backups.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "app/Backup.h"
#include "app/OldDataMigration.h"
#include "app/UserDefaults.h"
#include "disk/Locations.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

void writeText(const fs::path& p, const std::string& text) {
    fs::create_directories(p.parent_path());
    std::ofstream(p) << text;
}
std::string readText(const fs::path& p) {
    std::ifstream in(p);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace

TEST(Locations, FollowXDGDataHomeAndNameTheFiles) {
    test::TempHome home;
    const std::string ours = home.dataHome() + "/com.marrowfen.Quillvane3";
    EXPECT_EQ(quillvaneURL(0), ours + "/database3");
    EXPECT_EQ(quillvaneURL(1), ours + "/Backups");
    EXPECT_EQ(quillvaneURL(2), home.dataHome() + "/Quillvane/database3");
    EXPECT_EQ(quillvaneURL(3), ours + "/alock");
    EXPECT_EQ(quillvaneURL(4), home.dataHome() + "/Quillvane/alock");
    EXPECT_TRUE(fs::is_directory(ours)) << "our directory is made on first use";
    EXPECT_FALSE(fs::exists(oldAppSupURL())) << "the old one never is";
    EXPECT_EQ(defaultDiskImageLocationURL(), ours + "/Data");
    EXPECT_EQ(libraryURL(), home.root() + "/.local");
}

TEST(Locations, AnUnknownKeyIsAProgrammingErrorAndLogged) {
    test::TempHome home;
    test::LogCapture log;
    EXPECT_THROW(quillvaneURL(5), std::invalid_argument);
    EXPECT_TRUE(log.has("shouldn't reach this! given: 5"));
}

TEST(UserDefaults, RegisteredFallbacksYieldToStoredValuesAndPersist) {
    test::TempHome home;
    ASSERT_TRUE(registerQuillvaneDefaults());
    auto& defaults = QVUserDefaults::standardUserDefaults();
    EXPECT_EQ(defaults.integerForKey("QVWindowMode"), 0);
    EXPECT_TRUE(defaults.boolForKey("QVShowInfoNotifications"));
    EXPECT_EQ(defaults.objectForKey("QVInfoBGColor").toArray()->size(), 4u);

    defaults.setObject("QVWindowMode", Value(1));
    defaults.setObject("QVShowInfoNotifications", Value(false));
    ASSERT_TRUE(defaults.synchronize());
    defaults.reopen();
    EXPECT_EQ(defaults.integerForKey("QVWindowMode"), 1);
    EXPECT_FALSE(defaults.boolForKey("QVShowInfoNotifications"));
    EXPECT_TRUE(fs::exists(home.configHome() + "/Quillvane/Quillvane.conf"));

    defaults.removeObjectForKey("QVWindowMode");
    EXPECT_EQ(defaults.integerForKey("QVWindowMode"), 0) << "back to the fallback";
}

TEST(OldData, IsBroughtOverOnlyWhenTheNewDatabaseIsMissing) {
    test::TempHome home;
    const fs::path old = oldAppSupURL();
    writeText(old / "database3", "old db");
    writeText(old / "alock", "old alock");
    writeText(old / "Data/A.sparsebundle/token", "image");
    writeText(old / "Backups/database3 2020-01-01 000000", "backup");

    ASSERT_TRUE(moveOldDataIfNeeded());
    const fs::path ours = ourAppSupURL();
    EXPECT_EQ(readText(ours / "database3"), "old db");
    EXPECT_EQ(readText(old / "database3"), "old db") << "the old master file stays";
    EXPECT_EQ(readText(ours / "alock"), "old alock");
    EXPECT_EQ(readText(ours / "Data/A.sparsebundle/token"), "image");
    EXPECT_FALSE(fs::exists(old / "Data")) << "images are moved, not copied";
    EXPECT_EQ(readText(ours / "Backups/database3 2020-01-01 000000"), "backup");
    EXPECT_TRUE(fs::exists(old / "Backups/database3 2020-01-01 000000"));

    // With both files there, nothing is copied again.
    writeText(old / "database3", "changed");
    EXPECT_FALSE(moveOldDataIfNeeded());
    EXPECT_EQ(readText(ours / "database3"), "old db");
}

TEST(OldData, AFailingStepIsLoggedAndTheOthersStillRun) {
    test::TempHome home;
    const fs::path old = oldAppSupURL();
    writeText(old / "database3", "old db");  // no alock, no Data, no Backups
    test::LogCapture log;
    EXPECT_TRUE(moveOldDataIfNeeded());
    const auto& lines = log.lines;
    EXPECT_EQ(readText(fs::path(ourAppSupURL()) / "database3"), "old db");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("Error migrating autolock file: "), std::string::npos);
    EXPECT_NE(lines[1].find("Error migrating Data Folder: "), std::string::npos);
    EXPECT_NE(lines[2].find("Error migrating Backups Folder: "), std::string::npos);
}

TEST(Backup, CopiesTheMasterFileUnderADatedNameAndKeepsTheNewest40) {
    test::TempHome home;
    writeText(quillvaneURL(0), "master");
    const fs::path dir = quillvaneURL(1);
    // 40 older backups already there, and an unrelated file that pruning leaves alone.
    for (int i = 0; i < 40; ++i) writeText(dir / QVFormat("database3 2001-01-%02d 000000", i + 1), "old");
    writeText(dir / "notes.txt", "keep");

    test::LogCapture log;
    ASSERT_TRUE(backupQuillvaneDatabaseWithSuffix(" before upgrade"));
    EXPECT_TRUE(log.has("INFO: backed up: "));

    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    EXPECT_EQ(names.size(), 41u) << "40 backups and the unrelated file";
    EXPECT_FALSE(names.count("database3 2001-01-01 000000")) << "the oldest is gone";
    EXPECT_TRUE(names.count("database3 2001-01-02 000000"));
    EXPECT_TRUE(names.count("notes.txt"));
    const std::string newest = *std::prev(names.find("notes.txt"));
    EXPECT_EQ(newest.rfind("database3 20", 0), 0u);
    EXPECT_NE(newest.find(" before upgrade"), std::string::npos);
    EXPECT_EQ(readText(dir / newest), "master");
}

TEST(Backup, FailsCleanlyWithoutAMasterFileOrWithAnUnwritableFolder) {
    test::TempHome home;
    EXPECT_FALSE(backupQuillvaneDatabase()) << "no master file yet";
    fs::remove_all(quillvaneURL(1));
    writeText(quillvaneURL(0), "master");
    writeText(quillvaneURL(1), "a file where the folder should be");
    EXPECT_FALSE(backupQuillvaneDatabase());
    EXPECT_EQ(readText(quillvaneURL(1)), "a file where the folder should be");
    EXPECT_EQ(readText(quillvaneURL(0)), "master");
}

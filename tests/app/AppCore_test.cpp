// Start-up operations of the application core: moving the previous version's
// data, and the dated backups.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "app/Backup.h"
#include "app/OldDataMigration.h"
#include "vault/Locations.h"
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

TEST(OldData, IsBroughtOverOnlyWhenTheNewDatabaseIsMissing) {
    test::TempHome home;
    const fs::path old = oldAppSupURL(), ours = ourAppSupURL();
    writeText(old / "database3", "old db");
    writeText(old / "Data/A.sparsebundle/token", "image");

    ASSERT_TRUE(moveOldDataIfNeeded());
    EXPECT_EQ(readText(ours / "database3"), "old db");
    EXPECT_EQ(readText(ours / "Data/A.sparsebundle/token"), "image");
    EXPECT_FALSE(fs::exists(old / "Data")) << "images are moved, not copied";

    // With both files there, nothing is copied again.
    writeText(old / "database3", "changed");
    EXPECT_FALSE(moveOldDataIfNeeded());
    EXPECT_EQ(readText(ours / "database3"), "old db");
}

TEST(OldData, AFailingStepIsLoggedAndTheOthersStillRun) {
    test::TempHome home;
    writeText(fs::path(oldAppSupURL()) / "database3", "old db");  // no alock, no Data, no Backups
    test::LogCapture log;
    EXPECT_TRUE(moveOldDataIfNeeded());
    EXPECT_EQ(readText(fs::path(ourAppSupURL()) / "database3"), "old db");
    EXPECT_EQ(log.lines.size(), 3u) << "one line for each missing part";
}

TEST(Backup, CopiesTheMasterFileUnderADatedNameAndKeepsTheNewest40) {
    test::TempHome home;
    const fs::path dir = quillvaneURL(1);
    // 40 older backups already there, and an unrelated file that pruning leaves alone.
    for (int i = 0; i < 40; ++i) writeText(dir / QVFormat("database3 2001-01-%02d 000000", i + 1), "old");
    writeText(dir / "notes.txt", "keep");
    test::LogCapture quiet;
    EXPECT_FALSE(backupQuillvaneDatabase()) << "no master file yet";
    writeText(quillvaneURL(0), "master");
    ASSERT_TRUE(backupQuillvaneDatabaseWithSuffix(" before upgrade"));
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    EXPECT_EQ(names.size(), 41u) << "40 backups and the unrelated file";
    EXPECT_FALSE(names.count("database3 2001-01-01 000000")) << "the oldest is gone";
    const std::string newest = *std::prev(names.find("notes.txt"));
    EXPECT_NE(newest.find(" before upgrade"), std::string::npos) << newest;
    EXPECT_EQ(readText(dir / newest), "master");
}

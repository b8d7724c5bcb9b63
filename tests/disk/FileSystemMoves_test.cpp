// Moving and renaming single items: never over an existing item, forced
// renames that make room with the time of day, and removal of empty folders.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "disk/FileSystemMoves.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"

namespace {

using qv::test::LogCapture;

namespace fs = std::filesystem;

std::string contents(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class MovesTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = qv::test::makeTempDir("qvmoves");
        fs::create_directories(dir + "/outer/inner");
    }
    void TearDown() override { fs::remove_all(dir); }
    void write(const std::string& rel, const std::string& text) { std::ofstream(dir + "/" + rel) << text; }
    std::string dir;
};

TEST_F(MovesTest, MovesNeverReplace) {
    write("outer/inner/file", "mine");
    auto moved = qv::moveFileUpADirectory(dir + "/outer/inner/file");
    ASSERT_TRUE(moved.has_value());
    EXPECT_EQ(*moved, dir + "/outer/file") << "one level up: into the folder above its folder";
    EXPECT_EQ(contents(dir + "/outer/file"), "mine");

    write("outer/inner/file", "other");
    LogCapture log;
    EXPECT_FALSE(qv::moveFileUpADirectory(dir + "/outer/inner/file").has_value());
    EXPECT_TRUE(log.has("can't move, destination exists: " + dir + "/outer/file"));
    EXPECT_EQ(contents(dir + "/outer/file"), "mine");
    EXPECT_EQ(contents(dir + "/outer/inner/file"), "other");
    auto direct = qv::moveFile(dir + "/outer/inner/file", dir);
    ASSERT_TRUE(direct.has_value());
    EXPECT_EQ(*direct, dir + "/file");

    EXPECT_FALSE(qv::moveFile(dir + "/missing", dir + "/outer").has_value());
    EXPECT_TRUE(log.has("rename resulted in: 2"));
}

TEST_F(MovesTest, RenamesRefuseTakenAndInvalidNames) {
    write("a.txt", "a");
    write("b.txt", "b");
    LogCapture log;
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "b.txt").has_value());
    EXPECT_TRUE(log.has("file exists: " + dir + "/b.txt"));
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "../escape").has_value());
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "").has_value());
    EXPECT_EQ(contents(dir + "/a.txt"), "a");
    EXPECT_EQ(contents(dir + "/b.txt"), "b");

    auto renamed = qv::renameItemAtPath(dir + "/a.txt", "new name\nwith newline");
    ASSERT_TRUE(renamed.has_value());
    EXPECT_EQ(*renamed, dir + "/new name\nwith newline");
    EXPECT_EQ(contents(*renamed), "a");
}

TEST_F(MovesTest, ForcedRenamesPutTheTimeBeforeTheExtension) {
    write("one", "1");
    write("two", "2");
    write("three", "3");
    write("a.txt", "taken");
    write("a", "taken too");

    auto free = qv::forceRenameItemAtPath(dir + "/one", "free.txt");
    ASSERT_TRUE(free.has_value());
    EXPECT_EQ(*free, dir + "/free.txt") << "a free name is used as it is";

    LogCapture log;
    auto withExt = qv::forceRenameItemAtPath(dir + "/two", "a.txt");
    ASSERT_TRUE(withExt.has_value());
    EXPECT_TRUE(std::regex_match(*withExt, std::regex(".*/a \\d\\d-\\d\\d-\\d\\d\\.txt"))) << *withExt;
    EXPECT_TRUE(log.has("INFO: rename of '" + dir + "/two' to '" + dir + "/a.txt' being forced because of existing file"));
    EXPECT_TRUE(log.has("INFO: new destination: '" + *withExt + "'"));
    EXPECT_EQ(contents(dir + "/a.txt"), "taken");

    auto bare = qv::forceRenameItemAtPath(dir + "/three", "a");
    ASSERT_TRUE(bare.has_value());
    EXPECT_TRUE(std::regex_match(*bare, std::regex(".*/a \\d\\d-\\d\\d-\\d\\d( \\d+)?"))) << *bare;
    EXPECT_EQ(contents(*bare), "3");
    EXPECT_EQ(contents(dir + "/a"), "taken too");

    // Several forced renames to one name within a second all find room.
    std::vector<std::string> used;
    for (int i = 0; i < 4; ++i) {
        write("extra" + std::to_string(i), std::to_string(i));
        auto p = qv::forceRenameItemAtPath(dir + "/extra" + std::to_string(i), "a.txt");
        ASSERT_TRUE(p.has_value());
        used.push_back(*p);
    }
    for (size_t i = 0; i < used.size(); ++i) EXPECT_EQ(contents(used[i]), std::to_string(i));
}

TEST_F(MovesTest, OnlyEmptyFoldersAreDeleted) {
    const std::string empty = dir + "/empty", store = dir + "/store", both = dir + "/both";
    fs::create_directories(empty);
    fs::create_directories(store);
    fs::create_directories(both);
    write("store/.DS_Store", "x");
    write("both/.DS_Store", "x");
    write("both/keep", "x");
    write("plain-file", "x");
    fs::create_symlink("empty", dir + "/link");

    EXPECT_FALSE(qv::deleteIfEmpty(both));
    EXPECT_TRUE(fs::exists(both + "/.DS_Store")) << "nothing goes from a folder that stays";
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/plain-file"));
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/link"));
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/missing"));
    EXPECT_TRUE(fs::exists(empty));
    EXPECT_TRUE(qv::deleteIfEmpty(empty));
    EXPECT_TRUE(qv::deleteIfEmpty(store));
    EXPECT_FALSE(fs::exists(empty));
    EXPECT_FALSE(fs::exists(store));
}

} // namespace

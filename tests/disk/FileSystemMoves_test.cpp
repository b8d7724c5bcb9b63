// Moving and renaming single items: never over an existing item, and removal
// of empty folders only.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "disk/FileSystemMoves.h"
#include "disk/TreeCompare.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;
using qv::test::readWhole;

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

TEST_F(MovesTest, MovesAndRenamesNeverReplace) {
    write("outer/inner/file", "mine");
    EXPECT_EQ(qv::moveFileUpADirectory(dir + "/outer/inner/file").value_or(""), dir + "/outer/file");
    write("outer/inner/file", "other");
    EXPECT_FALSE(qv::moveFileUpADirectory(dir + "/outer/inner/file").has_value());
    EXPECT_EQ(readWhole(dir + "/outer/file"), "mine");
    EXPECT_EQ(readWhole(dir + "/outer/inner/file"), "other");
    EXPECT_FALSE(qv::moveFile(dir + "/missing", dir + "/outer").has_value());

    write("a.txt", "a");
    write("b.txt", "b");
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "b.txt").has_value());
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "../escape").has_value());
    EXPECT_FALSE(qv::renameItemAtPath(dir + "/a.txt", "").has_value());
    EXPECT_EQ(readWhole(dir + "/b.txt"), "b");
    EXPECT_EQ(qv::renameItemAtPath(dir + "/a.txt", "new\nline").value_or(""), dir + "/new\nline");
}

TEST_F(MovesTest, OnlyEmptyFoldersAreDeleted) {
    fs::create_directories(dir + "/store");
    fs::create_directories(dir + "/both");
    write("store/.DS_Store", "x");
    write("both/.DS_Store", "x");
    write("both/keep", "x");
    fs::create_symlink("store", dir + "/link");
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/both"));
    EXPECT_TRUE(fs::exists(dir + "/both/.DS_Store")) << "nothing goes from a folder that stays";
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/link"));
    EXPECT_FALSE(qv::deleteIfEmpty(dir + "/both/keep"));
    EXPECT_TRUE(qv::deleteIfEmpty(dir + "/store"));
    EXPECT_FALSE(fs::exists(dir + "/store"));
}

} // namespace

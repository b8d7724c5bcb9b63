// The size walks: blocks with hard links counted once (checked against du),
// and the logical size with its cancel callback.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "disk/ProcessRunner.h"
#include "disk/SizeWalk.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

void writeFile(const std::string& path, size_t bytes) { std::ofstream(path, std::ios::binary) << std::string(bytes, 'x'); }

// A file of `logical` bytes with only `data` bytes written at its start.
void writeSparse(const std::string& path, off_t logical, size_t data) {
    writeFile(path, data);
    fs::resize_file(path, static_cast<uintmax_t>(logical));
}

int64_t duBlocks(const std::string& path) {
    auto out = qv::quickCommand("/usr/bin/du", {"-s", "-B512", path}, nullptr);
    return out ? std::stoll(*out) : -2;
}

class SizeWalkTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = qv::test::makeTempDir("qvsize");
        tree = root + "/tree";
        fs::create_directories(tree + "/sub/deeper");
    }
    void TearDown() override { fs::remove_all(root); }
    std::string root, tree;
};

TEST_F(SizeWalkTest, BlocksMatchDuWithHardLinksCountedOnce) {
    writeFile(tree + "/big", 300000);
    writeFile(tree + "/sub/mid", 70000);
    fs::create_symlink("/nowhere/at/all", tree + "/dangling");
    writeSparse(tree + "/sub/sparse", 50 << 20, 4096);
    const int64_t before = qv::num512BlocksInDir(tree);
    EXPECT_EQ(before, duBlocks(tree));
    EXPECT_LT(before, (50 << 20) / 512) << "the sparse file counts its allocation, not its length";

    // Two more names for "big" inside the tree, one outside it: no more room taken.
    fs::create_hard_link(tree + "/big", tree + "/sub/deeper/big-again");
    fs::create_hard_link(tree + "/big", tree + "/big-third");
    fs::create_hard_link(tree + "/sub/mid", root + "/outside-link");
    const int64_t after = qv::num512BlocksInDir(tree);
    EXPECT_EQ(after, duBlocks(tree));
    EXPECT_LT(after, before + 300000 / 512) << "a hard link must not count its file again";
    EXPECT_EQ(qv::num512BlocksInDir(root + "/missing"), -1);
}

TEST_F(SizeWalkTest, LogicalSizeCountsEveryNameAndCanBeCancelled) {
    writeFile(tree + "/a", 1000);
    writeFile(tree + "/sub/b", 2345);
    writeSparse(tree + "/sub/sparse", 10 << 20, 100);
    fs::create_hard_link(tree + "/a", tree + "/sub/a-link");
    fs::create_symlink("sub/b", tree + "/link");  // its size is its target's length: 5
    const int64_t expected = 1000 + 2345 + (10 << 20) + 1000 + 5;

    uint64_t last = 0;
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(tree, [&](uint64_t soFar) {
        EXPECT_GE(soFar, std::exchange(last, soFar)) << "the running total never shrinks";
        return false;
    }), expected);

    // Stopped from the callback: the walk ends at once and gives what it had.
    int calls = 0;
    EXPECT_LT(qv::fastFolderSizeAtFSRef(tree, [&](uint64_t) { return ++calls == 3; }), expected);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(root + "/missing", nullptr), -1);
}

} // namespace

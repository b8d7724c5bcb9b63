// The size walks: blocks with hard links counted once (checked against du),
// the early-stopping limits, and the logical size with its cancel callback.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "disk/ProcessRunner.h"
#include "disk/SizeWalk.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"

namespace {

using qv::test::LogCapture;

namespace fs = std::filesystem;

void writeFile(const std::string& path, size_t bytes, char fill = 'x') {
    std::ofstream out(path, std::ios::binary);
    out << std::string(bytes, fill);
}

// A file of `logical` bytes with only `data` bytes written at its start.
void writeSparse(const std::string& path, off_t logical, size_t data) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    std::string bytes(data, 'd');
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ASSERT_EQ(::ftruncate(fd, logical), 0);
    ::close(fd);
}

int64_t duBlocks(const std::string& path) {
    qv::QVError error;
    auto out = qv::quickCommand("/usr/bin/du", {"-s", "-B512", path}, &error);
    EXPECT_TRUE(error.empty()) << error.description;
    return out ? std::stoll(*out) : -2;
}

class SizeWalkTest : public ::testing::Test {
protected:
    void SetUp() override { root = qv::test::makeTempDir("qvsize"); }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(root + "/tree/closed", fs::perms::owner_all, ec);
        fs::remove_all(root, ec);
    }
    std::string root;
};

TEST(HardLinkTable, CountsAnInodeOnceAndForgetsItAfterItsLastLink) {
    qv::QVHardLinkTable table;
    struct stat a {};
    a.st_dev = 7;
    a.st_ino = 42;
    a.st_nlink = 3;
    struct stat b = a;
    b.st_dev = 8;  // same inode number on another device is another file
    EXPECT_FALSE(table.seen(a));
    EXPECT_FALSE(table.seen(b));
    EXPECT_TRUE(table.seen(a));
    EXPECT_EQ(table.size(), 2u);
    EXPECT_TRUE(table.seen(a));
    EXPECT_EQ(table.size(), 1u) << "the last link met takes the entry out";
    EXPECT_FALSE(table.seen(a)) << "a fourth name would be a new file to the table";
}

TEST_F(SizeWalkTest, BlocksMatchDuWithHardLinksCountedOnce) {
    const std::string tree = root + "/tree";
    fs::create_directories(tree + "/sub/deeper");
    writeFile(tree + "/big", 300000);
    writeFile(tree + "/small", 10);
    writeFile(tree + "/sub/mid", 70000);
    fs::create_symlink("big", tree + "/sub/link-to-big");
    fs::create_symlink("/nowhere/at/all", tree + "/dangling");
    writeSparse(tree + "/sub/sparse", 50 << 20, 4096);
    const int64_t before = qv::num512BlocksInDir(tree);
    ASSERT_GT(before, 0);
    EXPECT_EQ(before, duBlocks(tree));

    // Two more names for "big" inside the tree, one outside it: no more room taken.
    fs::create_hard_link(tree + "/big", tree + "/sub/deeper/big-again");
    fs::create_hard_link(tree + "/big", tree + "/big-third");
    fs::create_hard_link(tree + "/sub/mid", root + "/outside-link");
    const int64_t after = qv::num512BlocksInDir(tree);
    EXPECT_EQ(after, duBlocks(tree));
    EXPECT_LT(after, before + 300000 / 512) << "a hard link must not count its file again";
    // The sparse file counts its allocation, not its length.
    EXPECT_LT(after, (50 << 20) / 512);

    EXPECT_EQ(qv::approxSizeOfFolderAtPath(tree), after * 512 / 1048576);
    EXPECT_EQ(qv::num512BlocksInDir(tree + "/big"), duBlocks(tree + "/big")) << "a file measures itself";
}

TEST_F(SizeWalkTest, LimitsStopEarlyAndReportFailures) {
    const std::string tree = root + "/tree";
    fs::create_directories(tree + "/a/b");
    writeFile(tree + "/a/b/two-mib", 2 << 20);
    writeFile(tree + "/one", 1);
    writeFile(tree + "/.DS_Store", 1);
    writeFile(tree + "/a/three", 1);
    const int64_t blocks = qv::num512BlocksInDir(tree);

    EXPECT_EQ(qv::folderAtPathAtLeast(tree, static_cast<uint64_t>(blocks) - 1), 1);
    EXPECT_EQ(qv::folderAtPathAtLeast(tree, static_cast<uint64_t>(blocks)), 0) << "it must pass the limit, not meet it";
    EXPECT_TRUE(qv::folderAtPath(tree, 1));
    EXPECT_FALSE(qv::folderAtPath(tree, 3));

    // Items other than directories, .DS_Store left out: one, three, two-mib.
    EXPECT_EQ(qv::folderFileCountAtLeast(tree, 3), 1);
    EXPECT_EQ(qv::folderFileCountAtLeast(tree, 4), 0);

    LogCapture log;
    const std::string missing = root + "/missing";
    EXPECT_EQ(qv::num512BlocksInDir(missing), -1);
    EXPECT_TRUE(log.has("WARN (num512BlocksInDir:"));
    EXPECT_TRUE(log.has("FTS_ERR: " + missing + ": No such file or directory"));
    EXPECT_EQ(qv::approxSizeOfFolderAtPath(missing), -1);
    EXPECT_EQ(qv::folderAtPathAtLeast(missing, 1), 0);
    EXPECT_EQ(qv::folderFileCountAtLeast(missing, 1), -1);
    EXPECT_EQ(qv::folderAtPathAtLeast("", 1), -1);
}

TEST_F(SizeWalkTest, LogicalSizeCountsEveryNameAndCanBeCancelled) {
    const std::string tree = root + "/tree";
    fs::create_directories(tree + "/sub/empty");
    writeFile(tree + "/a", 1000);
    writeFile(tree + "/sub/b", 2345);
    writeSparse(tree + "/sub/sparse", 10 << 20, 100);
    fs::create_hard_link(tree + "/a", tree + "/sub/a-link");
    fs::create_symlink("sub/b", tree + "/link");  // its size is its target's length: 5
    const int64_t expected = 1000 + 2345 + (10 << 20) + 1000 + 5;

    std::vector<uint64_t> seen;
    int64_t size = qv::fastFolderSizeAtFSRef(tree, [&](uint64_t soFar) {
        seen.push_back(soFar);
        return false;
    });
    EXPECT_EQ(size, expected);
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(tree, nullptr), expected);
    ASSERT_GE(seen.size(), 7u) << "asked before each item";
    for (size_t i = 1; i < seen.size(); ++i) EXPECT_LE(seen[i - 1], seen[i]) << "the running total never shrinks";

    // Stopped from the callback: the walk ends at once and gives what it had.
    int calls = 0;
    size = qv::fastFolderSizeAtFSRef(tree, [&](uint64_t) { return ++calls == 3; });
    EXPECT_EQ(calls, 3);
    EXPECT_LT(size, expected);

    LogCapture log;
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(root + "/missing", nullptr), -1);
    EXPECT_TRUE(log.has("error 2 during size calc for: " + root + "/missing"));
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(tree + "/sub/b", nullptr), 2345);
}

TEST_F(SizeWalkTest, UnreadableFolderCountsAsNothing) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder";
    const std::string tree = root + "/tree";
    fs::create_directories(tree + "/closed");
    writeFile(tree + "/closed/hidden", 5000);
    writeFile(tree + "/open", 7);
    fs::permissions(tree + "/closed", fs::perms::none);
    LogCapture log;
    EXPECT_EQ(qv::fastFolderSizeAtFSRef(tree, nullptr), 7);
    EXPECT_TRUE(log.has("accessDenied during size calc for: " + tree + "/closed"));
    EXPECT_EQ(qv::num512BlocksInDir(tree), -1) << "the block count wants every folder";
}

} // namespace

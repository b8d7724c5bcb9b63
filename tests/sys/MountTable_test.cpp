// The mount table: lines in the kernel's mountinfo format, read from a file of
// our own, and the table of this process for what every system mounts.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TempHome.h"
#include "sys/MountTable.h"

namespace {

using qv::QVMountEntry;

class MountTableFile : public ::testing::Test {
protected:
    void SetUp() override { dir = qv::test::makeTempDir("qvmounts"); }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::vector<QVMountEntry> parse(const std::string& text) {
        const std::string path = dir + "/mountinfo";
        std::ofstream(path, std::ios::binary) << text;
        int err = -1;
        auto entries = qv::QVReadMountTableFile(path, &err);
        EXPECT_EQ(err, 0);
        return entries;
    }

    std::string dir;
};

// A folder's mount point may hold any character; the kernel escapes the four
// that would break the line, and nothing else may be taken for an escape.
TEST_F(MountTableFile, OnlyABackslashWithThreeOctalDigitsIsAnEscape) {
    auto entries = parse("40 1 0:50 /in\\040root /home/u/My\\040Folder\\011tab\\012line\\134slash rw - fuse.fuse2fs "
                         "/home/u/.images/a\\040b rw,user_id=0\n"
                         "41 1 0:51 / /mnt/odd\\9ab\\x\\08end\\12 rw - tmpfs tmpfs\\ rw\n");
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].root, "/in root");
    EXPECT_EQ(entries[0].mountPoint, "/home/u/My Folder\ttab\nline\\slash");
    EXPECT_EQ(entries[0].source, "/home/u/.images/a b");
    EXPECT_EQ(entries[1].mountPoint, "/mnt/odd\\9ab\\x\\08end\\12") << "no escape without three octal digits";
    EXPECT_EQ(entries[1].source, "tmpfs\\") << "a backslash at the end stays";
}

// The optional fields (none, one or several) stand between the options and the
// lone "-"; every field after them keeps its place.
TEST_F(MountTableFile, FieldsKeepTheirPlacesWhateverTheOptionalFields) {
    auto entries = parse("22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw,errors=remount-ro\n"
                         "23 22 0:22 / /proc rw,nosuid,nodev,noexec - proc proc rw\n"
                         "24 22 0:45 /sub /srv/data ro,nosuid shared:7 master:3 propagate_from:2 - "
                         "fuse.qv-image qv-image rw,user_id=1000,group_id=1000\n"
                         "25 22 0:46 / /empty rw - tmpfs  rw\n");
    ASSERT_EQ(entries.size(), 4u);
    const QVMountEntry& root = entries[0];
    EXPECT_EQ(root.major, 8u);
    EXPECT_EQ(root.minor, 2u);
    EXPECT_EQ(root.mountPoint, "/");
    EXPECT_EQ(root.options, "rw,relatime");
    EXPECT_EQ(root.fsType, "ext4");
    EXPECT_EQ(root.source, "/dev/sda2");
    EXPECT_EQ(root.superOptions, "rw,errors=remount-ro");
    EXPECT_EQ(entries[1].fsType, "proc") << "no optional field at all";
    const QVMountEntry& fuse = entries[2];
    EXPECT_EQ(fuse.minor, 45u);
    EXPECT_EQ(fuse.root, "/sub");
    EXPECT_EQ(fuse.mountPoint, "/srv/data");
    EXPECT_EQ(fuse.options, "ro,nosuid");
    EXPECT_EQ(fuse.fsType, "fuse.qv-image");
    EXPECT_EQ(fuse.source, "qv-image");
    EXPECT_EQ(fuse.superOptions, "rw,user_id=1000,group_id=1000");
    EXPECT_EQ(entries[3].source, "") << "an empty source is kept empty";
    EXPECT_EQ(entries[3].superOptions, "rw");
}

TEST_F(MountTableFile, BrokenLinesAreLeftOutAndAMissingTableIsAnError) {
    auto entries = parse("30 1 0:60 / /first rw - tmpfs tmpfs rw\n"
                         "not a mount line\n"
                         "31 1 0:61 / /cut-short rw shared:1\n"
                         "32 1 0:62 / /kept rw - tmpfs tmpfs rw\n");
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].mountPoint, "/first");
    EXPECT_EQ(entries[1].mountPoint, "/kept");

    int err = 0;
    EXPECT_TRUE(qv::QVReadMountTableFile(dir + "/missing", &err).empty());
    EXPECT_EQ(err, ENOENT);
}

TEST(MountTable, ThisProcessSeesWhatEverySystemMounts) {
    bool sawRoot = false;
    for (const QVMountEntry& e : qv::QVReadMountTable()) sawRoot = sawRoot || e.mountPoint == "/";
    EXPECT_TRUE(sawRoot);
    auto proc = qv::QVMountAt("/proc");
    ASSERT_TRUE(proc.has_value());
    EXPECT_EQ(proc->fsType, "proc");
    EXPECT_FALSE(qv::QVMountAt("/proc/self").has_value()) << "only the mount point itself has an entry";
    EXPECT_EQ(qv::QVUserMountOptions("/proc/self"), "");
}

} // namespace

// Space: sparse bands that grow with the data, compact giving free blocks
// back, resize changing the disk and its file system together; both leave the
// files of others in the bundle alone.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <ext2fs/ext2_fs.h>
#include <ext2fs/ext2fs.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "space-test-password";
constexpr uint64_t MiB = 1ull << 20;

uint64_t diskUsage(const std::string& path) { return std::stoull(runCommand({"du", "-sB1", path}).out); }

struct Limits {
    unsigned long long min = 0, current = 0, max = 0;  // 512-byte sectors
};

uint64_t volumeBytes(const std::string& mountPoint) {
    struct statvfs st {};
    return ::statvfs(mountPoint.c_str(), &st) == 0 ? uint64_t(st.f_blocks) * st.f_frsize : 0;
}

class ImageSpaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
    }
    // resize -limits: one line of three tab-separated numbers.
    Limits limits(const std::string& image, bool withPassword = true) {
        CommandResult r = withPassword ? box.qvImage({"resize", "-limits", "-stdinpass", image}, kPassword)
                                       : box.qvImage({"resize", "-limits", image});
        Limits l;
        const bool parsed = r.exitCode == 0 && r.out.find_first_not_of("0123456789\t\n") == std::string::npos &&
                            std::count(r.out.begin(), r.out.end(), '\t') == 2 &&
                            std::sscanf(r.out.c_str(), "%llu\t%llu\t%llu", &l.min, &l.current, &l.max) == 3;
        EXPECT_TRUE(parsed && l.min <= l.current && l.current <= l.max) << r.describe();
        return l;
    }
    CommandResult resize(const std::string& image, const std::string& size) {
        return box.qvImage({"resize", "-stdinpass", "-size", size, image}, kPassword);
    }
    ImageSandbox box;
    const std::string mnt = box.makeDir("folder");
};

TEST_F(ImageSpaceTest, SparseImageGrowsWithItsDataAndCompactGivesFreeSpaceBack) {
    const std::string image = box.createOrFail("big.sparsebundle", kPassword, 10240);
    ASSERT_FALSE(HasFailure());
    const uint64_t fresh = diskUsage(image);
    EXPECT_LT(fresh, 64 * MiB) << "a new 10 GiB image should cost next to nothing";

    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    writeFileSynced(mnt + "/keep", patternBytes(900, 10 * MiB));
    for (int i = 0; i < 3; ++i) writeFileSynced(mnt + "/data" + std::to_string(i), patternBytes(901 + i, 30 * MiB));
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    const uint64_t full = diskUsage(image);
    EXPECT_TRUE(full >= fresh + 90 * MiB && full <= fresh + 130 * MiB)
        << "100 MiB written, bundle grew by " << (full - fresh) / MiB << " MiB";

    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    for (int i = 0; i < 3; ++i) fs::remove(mnt + "/data" + std::to_string(i));
    // Compacting an attached image would discard blocks under a live file system.
    EXPECT_EQ(box.qvImage({"compact", "-stdinpass", image}, kPassword).exitCode, 5);
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    const std::string diskinfo = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>\n";
    writeFileSynced(image + "/diskinfo", diskinfo);

    CommandResult r = box.qvImage({"compact", "-stdinpass", image}, kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    // The application takes the text between "reclaimed " and " out of ".
    EXPECT_TRUE(std::regex_search(r.out, std::regex("Reclaimed .+ out of .+ possible\\."))) << r.out;
    const uint64_t compacted = diskUsage(image);
    EXPECT_LT(compacted, full - 45 * MiB) << "compact gave back only " << (full - compacted) / MiB << " of 90 MiB";

    // The data that stayed is untouched, and so is the application's own record in the bundle.
    EXPECT_EQ(readFile(image + "/diskinfo"), diskinfo);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_TRUE(readFile(mnt + "/keep") == patternBytes(900, 10 * MiB));
    EXPECT_FALSE(fs::exists(mnt + "/data0"));
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

TEST_F(ImageSpaceTest, ResizeGrowsAndShrinksDiskAndFileSystemKeepingFiles) {
    const std::string image = box.createOrFail("resize.sparsebundle", kPassword, 128);
    ASSERT_FALSE(HasFailure());
    std::map<std::string, std::string> files;
    for (int i = 0; i < 3; ++i) files["f" + std::to_string(i)] = patternBytes(300 + i, 7 * MiB + 1234 * i);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    for (const auto& [name, data] : files) writeFileSynced(mnt + "/" + name, data);
    writeFileSynced(image + "/diskinfo", "the application's own record");
    EXPECT_EQ(resize(image, "256m").exitCode, 5) << "resizing under a mounted file system";
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    auto expectFiles = [&](const std::string& when) {
        ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0) << when;
        for (const auto& [name, data] : files) EXPECT_TRUE(readFile(mnt + "/" + name) == data) << name << " " << when;
    };

    const Limits before = limits(image);
    EXPECT_EQ(before.current, 128 * MiB / 512);
    EXPECT_GE(before.min, 16 * MiB / 512);
    EXPECT_EQ(before.max, 34359738360ull) << "one 4 KiB block short of 16 TiB";
    // The application asks without a password when it has none: then the minimum can't be measured.
    const Limits blind = limits(image, /*withPassword=*/false);
    EXPECT_TRUE(blind.current == before.current && blind.min == blind.current);

    ASSERT_EQ(resize(image, "256m").exitCode, 0);
    EXPECT_EQ(limits(image).current, 256 * MiB / 512);
    expectFiles("after growing");
    EXPECT_GT(volumeBytes(mnt), 200 * MiB) << "the file system did not grow with the disk";
    writeFileSynced(mnt + "/big", patternBytes(310, 140 * MiB));  // more than the old disk held
    fs::remove(mnt + "/big");
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // Shrink, with the size as a bare number of bytes.
    ASSERT_LE(limits(image).min * 512, 96 * MiB) << "cannot test shrinking: minimum above 96 MiB";
    ASSERT_EQ(resize(image, std::to_string(96 * MiB)).exitCode, 0);
    EXPECT_EQ(limits(image).current, 96 * MiB / 512);
    for (const auto& band : listDirectory(image + "/bands"))
        EXPECT_LT(std::stoull(band, nullptr, 16), 12u) << "band " << band << " lies beyond the end of the disk";
    expectFiles("after shrinking");
    EXPECT_EQ(readFile(image + "/diskinfo"), "the application's own record");
    EXPECT_LT(volumeBytes(mnt), 97 * MiB) << "the file system did not shrink with the disk";
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // Below what the file system needs: refused, and nothing is lost.
    ASSERT_GT(limits(image).min, 16 * MiB / 512) << "21 MiB of files fit in 16 MiB?";
    const TreeSnapshot snap = snapshotTree(image);
    CommandResult r = resize(image, "16m");
    EXPECT_EQ(r.exitCode, 1) << r.describe();
    EXPECT_EQ(diffSnapshots(snap, snapshotTree(image)), "");
    expectFiles("after a refused shrink");
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

// Writes an incompressible `size` bytes and fsyncs them: 0, or the first errno
// that write or fsync gave.
int writeAndFsync(const std::string& path, size_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return errno;
    const std::string chunk = patternBytes(777, MiB);
    int err = 0;
    for (size_t done = 0; done < size && !err; done += chunk.size())
        if (::write(fd, chunk.data(), chunk.size()) != ssize_t(chunk.size())) err = errno ? errno : EIO;
    if (!err && ::fsync(fd) != 0) err = errno;
    ::close(fd);
    return err;
}

// The disk holding the image fills up under a write: the writer is told, a new
// image is refused with its own status, and the file system (which the refused
// blocks left inconsistent under what may be a clean superblock) is marked for
// a check. Nothing repairs or mounts it while the disk is still full (a repair
// whose writes are refused in turn was seen to lose synced data); once there
// is room again it mounts with what was synced before.
class FullHostTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
        box.setLayer(GetParam());
    }
    ImageSandbox box;
    const std::string mnt = box.makeDir("folder");
};

TEST_P(FullHostTest, AFullHostDiskFailsTheWriteAndKeepsWhatWasSynced) {
    const std::string host = box.makeDir("host");
    ASSERT_EQ(::mount("qv-test", host.c_str(), "tmpfs", 0, "size=48m"), 0) << std::strerror(errno);
    const std::string image = box.path("host/full.sparsebundle");
    ASSERT_EQ(box.create(image, kPassword, 1024).exitCode, 0);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    const std::string keep = patternBytes(500, 4 * MiB);
    writeFileSynced(mnt + "/keep", keep);

    const int err = writeAndFsync(mnt + "/too-big", 96 * MiB);
    EXPECT_NE(err, 0) << "96 MiB written and synced onto a disk with less than 48 MiB";
    CommandResult r = box.qvImage({"create", "-encryption", "AES-256", "-stdinpass", "-size", "64m", "-type",
                                   "SPARSEBUNDLE", "-volname", "More", "-fs", "HFS+J", "-ov",
                                   box.path("host/more.sparsebundle")},
                                  kPassword);
    EXPECT_TRUE(r.exited && r.exitCode == 7) << r.describe();
    EXPECT_FALSE(fs::exists(box.path("host/more.sparsebundle")));

    ::unlink((mnt + "/too-big").c_str());  // refused by a kernel ext4 that went read-only
    r = box.detach(mnt);
    if (r.exitCode != 0) r = box.detach(mnt, /*force=*/true);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    // The mark is made by the device process as it ends.
    waitUntilNoProcessUses(box.root());

    std::string dev;
    ASSERT_EQ(box.attachNoMount(image, kPassword, &dev).exitCode, 0);
    ext2_super_block sb {};
    const int fd = ::open(dev.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::pread(fd, &sb, sizeof sb, SUPERBLOCK_OFFSET), ssize_t(sizeof sb));
    ::close(fd);
    EXPECT_TRUE(sb.s_state & EXT2_ERROR_FS) << "the refused writes left no mark for the next attach";
    ASSERT_EQ(box.detach(dev).exitCode, 0);
    waitUntilNoProcessUses(box.root());

    r = box.attach(image, mnt, kPassword);
    EXPECT_TRUE(r.exited && r.exitCode == 7) << "mounted on a full disk: " << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
    r = box.qvImage({"compact", "-stdinpass", image}, kPassword);
    EXPECT_TRUE(r.exited && r.exitCode == 7) << "compacted a file system that needs a repair: " << r.describe();

    ASSERT_EQ(::mount("qv-test", host.c_str(), "tmpfs", MS_REMOUNT, "size=256m"), 0) << std::strerror(errno);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0) << "the image no longer mounts";
    EXPECT_TRUE(readFile(mnt + "/keep") == keep) << "a file synced before the disk filled up changed";
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

INSTANTIATE_TEST_SUITE_P(Layers, FullHostTest, ::testing::Values("fuse2fs", "kernel"),
                         [](const auto& info) { return info.param; });

} // namespace

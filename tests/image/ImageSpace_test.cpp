// Space: sparse bands that grow with the data, compact giving free blocks
// back, resize changing the disk and its file system together.
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "space-test-password";
constexpr uint64_t MiB = 1ull << 20;

struct Limits {
    uint64_t min = 0, current = 0, max = 0;
    bool parsed = false;
};

// One line, three tab-separated counts of 512-byte sectors.
Limits parseLimits(const std::string& out) {
    Limits l;
    std::string line = out.substr(0, out.find('\n'));
    if (std::count(line.begin(), line.end(), '\t') != 2) return l;
    if (line.find_first_not_of("0123456789\t") != std::string::npos) return l;
    std::istringstream in(line);
    std::string a, b, c;
    std::getline(in, a, '\t');
    std::getline(in, b, '\t');
    std::getline(in, c, '\t');
    if (a.empty() || b.empty() || c.empty()) return l;
    l.min = std::stoull(a);
    l.current = std::stoull(b);
    l.max = std::stoull(c);
    l.parsed = true;
    return l;
}

uint64_t volumeBytes(const std::string& mountPoint) {
    struct statvfs st {};
    if (::statvfs(mountPoint.c_str(), &st) != 0) return 0;
    return uint64_t(st.f_blocks) * st.f_frsize;
}

class ImageSpaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
    }
    Limits limits(const std::string& image, bool withPassword = true) {
        std::vector<std::string> args{"resize", "-limits"};
        if (withPassword) args.push_back("-stdinpass");
        args.push_back(image);
        CommandResult r = box.qvImage(args, withPassword ? std::optional<std::string>(kPassword) : std::nullopt);
        EXPECT_EQ(r.exitCode, 0) << r.describe();
        Limits l = parseLimits(r.out);
        EXPECT_TRUE(l.parsed) << "not three tab-separated numbers: [" << r.out << "]";
        EXPECT_LE(l.min, l.current);
        EXPECT_LE(l.current, l.max);
        return l;
    }
    CommandResult resize(const std::string& image, const std::string& size) {
        return box.qvImage({"resize", "-stdinpass", "-size", size, image}, kPassword);
    }
    ImageSandbox box;
};

TEST_F(ImageSpaceTest, SparseImageGrowsWithItsDataAndCompactGivesFreeSpaceBack) {
    const std::string image = box.createOrFail("big.sparsebundle", kPassword, 10240);
    ASSERT_FALSE(HasFailure());
    const uint64_t fresh = diskUsage(image);
    EXPECT_LT(fresh, 64 * MiB) << "a new 10 GiB image should cost next to nothing";

    const std::string mnt = box.makeDir("folder");
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_GT(volumeBytes(mnt), 9000 * MiB);
    const std::string keep = patternBytes(900, 10 * MiB);
    writeFileSynced(mnt + "/keep", keep);
    for (int i = 0; i < 3; ++i) writeFileSynced(mnt + "/data" + std::to_string(i), patternBytes(901 + i, 30 * MiB));
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    const uint64_t full = diskUsage(image);
    EXPECT_GE(full, fresh + 90 * MiB) << "100 MiB written, bundle grew by " << (full - fresh) / MiB << " MiB";
    EXPECT_LE(full, fresh + 130 * MiB) << "100 MiB written, bundle grew by " << (full - fresh) / MiB << " MiB";

    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    for (int i = 0; i < 3; ++i) fs::remove(mnt + "/data" + std::to_string(i));
    // Compacting an attached image would discard blocks under a live file system.
    CommandResult busy = box.qvImage({"compact", "-stdinpass", image}, kPassword);
    EXPECT_EQ(busy.exitCode, 5) << busy.describe();
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    CommandResult r = box.qvImage({"compact", "-stdinpass", image}, kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_NE(r.out.find("Reclaimed "), std::string::npos) << r.out;
    // What the application takes from the line: the text between "reclaimed " and " out of ".
    std::string lower = r.out;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    size_t from = lower.find("reclaimed "), to = lower.find(" out of ");
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos && to > from + 10) << r.out;
    EXPECT_FALSE(lower.substr(from + 10, to - from - 10).empty());
    EXPECT_NE(lower.find(" possible."), std::string::npos) << r.out;

    const uint64_t compacted = diskUsage(image);
    EXPECT_LT(compacted, full - 45 * MiB) << "compact gave back only " << (full - compacted) / MiB << " of 90 MiB";

    // The data that stayed is untouched and the volume still works.
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_EQ(fileSha256(mnt + "/keep"), sha256Hex(keep));
    EXPECT_FALSE(fs::exists(mnt + "/data0"));
    writeFileSynced(mnt + "/after", patternBytes(950, 3 * MiB));
    EXPECT_EQ(readFile(mnt + "/after"), patternBytes(950, 3 * MiB));
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

TEST_F(ImageSpaceTest, ResizeGrowsAndShrinksDiskAndFileSystemKeepingFiles) {
    const std::string image = box.createOrFail("resize.sparsebundle", kPassword, 128);
    ASSERT_FALSE(HasFailure());
    const std::string mnt = box.makeDir("folder");
    std::map<std::string, std::string> files;
    for (int i = 0; i < 3; ++i) files["f" + std::to_string(i)] = patternBytes(300 + i, 7 * MiB + 1234 * i);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    for (const auto& [name, data] : files) writeFileSynced(mnt + "/" + name, data);
    // Resizing under a mounted file system is refused.
    CommandResult busy = resize(image, "256m");
    EXPECT_EQ(busy.exitCode, 5) << busy.describe();
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    auto expectFiles = [&](const std::string& when) {
        for (const auto& [name, data] : files)
            EXPECT_EQ(fileSha256(mnt + "/" + name), sha256Hex(data)) << name << " " << when;
    };

    Limits before = limits(image);
    EXPECT_EQ(before.current, 128 * MiB / 512);
    EXPECT_GT(before.min, 0u);
    EXPECT_GE(before.max, before.current);
    // The application asks without a password when it has none.
    Limits blind = limits(image, /*withPassword=*/false);
    EXPECT_EQ(blind.current, before.current);
    EXPECT_EQ(blind.min, blind.current) << "without the password the minimum can't be measured";
    EXPECT_EQ(before.max, 34359738368ull) << "16 TiB";
    EXPECT_GE(before.min, 16 * MiB / 512);

    // Grow.
    CommandResult r = resize(image, "256m");
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_EQ(limits(image).current, 256 * MiB / 512);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_GT(volumeBytes(mnt), 200 * MiB) << "the file system did not grow with the disk";
    expectFiles("after growing");
    writeFileSynced(mnt + "/big", patternBytes(310, 140 * MiB));  // more than the old disk held
    fs::remove(mnt + "/big");
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // Shrink, with the size as a bare number of bytes.
    Limits grown = limits(image);
    ASSERT_LE(grown.min * 512, 96 * MiB) << "cannot test shrinking: minimum above 96 MiB";
    r = resize(image, std::to_string(96 * MiB));
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_EQ(limits(image).current, 96 * MiB / 512);
    for (const auto& band : listDirectory(image + "/bands"))
        EXPECT_LT(std::stoull(band, nullptr, 16), 12u) << "band " << band << " lies beyond the end of the disk";
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_LT(volumeBytes(mnt), 97 * MiB) << "the file system did not shrink with the disk";
    expectFiles("after shrinking");
    writeFileSynced(mnt + "/small", patternBytes(311, MiB));
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // Below what the file system needs: refused, and nothing is lost.
    const Limits shrunk = limits(image);
    ASSERT_GT(shrunk.min, 16 * MiB / 512) << "21 MiB of files fit in 16 MiB?";
    const TreeSnapshot snap = snapshotTree(image);
    r = resize(image, "16m");
    EXPECT_EQ(r.exitCode, 1) << r.describe();
    EXPECT_EQ(r.err.rfind("qv-image: ", 0), 0u) << r.err;
    EXPECT_EQ(diffSnapshots(snap, snapshotTree(image)), "");
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    expectFiles("after a refused shrink");
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

} // namespace

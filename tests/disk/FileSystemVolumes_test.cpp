// Volume tests against mount points every Linux system has ("/", "/proc") and
// plain items in a temporary directory; no mounting of our own.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "disk/FileSystemVolumes.h"
#include "disk/ProcessRunner.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

class VolumesTest : public ::testing::Test {
protected:
    void SetUp() override { dir = qv::test::makeTempDir("qvvol"); }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
};

// Whether a folder is a mount point decides whether it counts as unlocked.
TEST_F(VolumesTest, MountPointsAreVolumesAndPlainItemsAreNot) {
    qv::QVError error;
    EXPECT_TRUE(qv::isVolumeAtURL("/", &error));
    EXPECT_TRUE(qv::isVolumeAtURL("/proc/", &error));
    fs::create_directories(dir + "/plain");
    std::ofstream(dir + "/file") << "x";
    fs::create_symlink("/proc", dir + "/link-to-proc");
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/plain", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/link-to-proc", &error)) << "a link to a mount point is no mount point";
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/missing", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/file/below-a-file", &error));
    EXPECT_TRUE(error.empty()) << "a missing path is an answer, not a failure: " << error.description;
    EXPECT_TRUE(qv::isVolumeAtPath(dir + "/link-to-proc")) << "the resolving variant follows links";
    EXPECT_FALSE(qv::isVolumeAtPath(dir + "/missing"));
}

TEST_F(VolumesTest, MountTableAndFileSystemFacts) {
    bool sawProc = false;
    for (const auto& e : qv::QVReadMountTable())
        if (e.mountPoint == "/proc") sawProc = e.fsType == "proc";
    EXPECT_TRUE(sawProc);
    EXPECT_FALSE(qv::volnameAtURL("/proc").has_value()) << "a file system without a label has no name";

    // The root's label, when the root is a labelled disk we may read, checked against e2label.
    std::string source;
    for (const auto& e : qv::QVReadMountTable())
        if (e.mountPoint == "/" && e.fsType.rfind("ext", 0) == 0) source = e.source;
    if (source.empty() || ::access(source.c_str(), R_OK) != 0) GTEST_SKIP() << "no readable ext root device";
    auto label = qv::quickCommand("/usr/sbin/e2label", {source}, nullptr);
    ASSERT_TRUE(label.has_value());
    while (!label->empty() && label->back() == '\n') label->pop_back();
    EXPECT_EQ(qv::volnameAtURL(dir).value_or(""), *label) << "any path on the volume gives its name";
}

} // namespace

// Volume tests against mount points every Linux system has ("/", "/proc") and
// plain items in a temporary directory; no mounting of our own.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "disk/FileSystemVolumes.h"
#include "disk/ProcessRunner.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

class VolumesTest : public ::testing::Test {
protected:
    void SetUp() override { dir = qv::test::makeTempDir("qvvol"); }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(dir + "/closed", fs::perms::owner_all, ec);
        fs::remove_all(dir, ec);
    }
    std::string dir;
};

TEST_F(VolumesTest, MountPointsAreVolumesAndPlainItemsAreNot) {
    qv::QVError error;
    EXPECT_TRUE(qv::isVolumeAtURL("/", &error));
    EXPECT_TRUE(qv::isVolumeAtURL("/proc", &error));
    EXPECT_TRUE(qv::isVolumeAtURL("/proc/", &error)) << "a trailing slash names the same directory";
    EXPECT_TRUE(error.empty());

    fs::create_directories(dir + "/plain/sub");
    std::ofstream(dir + "/file") << "x";
    fs::create_symlink("/proc", dir + "/link-to-proc");
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/plain", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/plain/sub", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/file", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/link-to-proc", &error)) << "a link to a mount point is no mount point";
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/missing", &error));
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/file/below-a-file", &error));
    EXPECT_FALSE(qv::isVolumeAtURL("", &error));
    EXPECT_TRUE(error.empty()) << "a missing path is an answer, not a failure: " << error.description;

    EXPECT_TRUE(qv::isVolumeAtPath(dir + "/link-to-proc")) << "the resolving variant follows links";
    EXPECT_TRUE(qv::isVolumeAtPath("/proc/../proc"));
    EXPECT_FALSE(qv::isVolumeAtPath(dir + "/plain"));
    EXPECT_FALSE(qv::isVolumeAtPath(dir + "/missing"));
}

TEST_F(VolumesTest, FailureToLookIsAnError) {
    if (::geteuid() == 0) GTEST_SKIP() << "root searches every folder";
    fs::create_directories(dir + "/closed/inside");
    fs::permissions(dir + "/closed", fs::perms::none);
    qv::QVError error;
    EXPECT_FALSE(qv::isVolumeAtURL(dir + "/closed/inside", &error));
    EXPECT_EQ(error.code, EACCES);
    EXPECT_EQ(error.description, "isVolume failed with error 13 for:\n\n" + dir + "/closed/inside");
}

TEST_F(VolumesTest, MountTableAndFileSystemFacts) {
    const auto table = qv::QVReadMountTable();
    bool sawRoot = false, sawProc = false;
    for (const auto& e : table) {
        if (e.mountPoint == "/") sawRoot = true;
        if (e.mountPoint == "/proc") {
            sawProc = true;
            EXPECT_EQ(e.fsType, "proc");
        }
    }
    EXPECT_TRUE(sawRoot);
    EXPECT_TRUE(sawProc);

    EXPECT_EQ(qv::fileSystemDescriptionAtMount("/proc").value_or(""), "proc");
    EXPECT_EQ(qv::fileSystemDescriptionAtMount("/proc/self").value_or(""), "proc") << "any path on the volume";
    EXPECT_FALSE(qv::fileSystemDescriptionAtMount(dir + "/missing").has_value());
    EXPECT_FALSE(qv::isReadOnlyFSAtPath(dir));
    EXPECT_EQ(qv::ownerForPath("/"), 0) << "the system mounted the root";
    EXPECT_EQ(qv::ownerForPath(dir + "/missing"), -1);
}

TEST_F(VolumesTest, KindsOfItems) {
    fs::create_directories(dir + "/folder");
    std::ofstream(dir + "/file") << "x";
    fs::create_symlink("folder", dir + "/folder-link");
    fs::create_symlink("file", dir + "/file-link");
    fs::create_symlink("nowhere", dir + "/dangling");

    EXPECT_TRUE(qv::isDirectoryAtPath(dir + "/folder"));
    EXPECT_TRUE(qv::isDirectoryAtPath(dir + "/folder-link"));
    EXPECT_FALSE(qv::isDirectoryAtPath(dir + "/file"));
    EXPECT_FALSE(qv::isDirectoryAtPath(dir + "/dangling"));

    EXPECT_TRUE(qv::isSymbolicLinkAtPath(dir + "/dangling"));
    EXPECT_TRUE(qv::isSymbolicLinkAtPath(dir + "/file-link"));
    EXPECT_FALSE(qv::isSymbolicLinkAtPath(dir + "/folder"));

    EXPECT_TRUE(qv::isAliasFolderAtPath(dir + "/folder-link"));
    EXPECT_FALSE(qv::isAliasFolderAtPath(dir + "/file-link"));
    EXPECT_FALSE(qv::isAliasFolderAtPath(dir + "/dangling"));
    EXPECT_FALSE(qv::isAliasFolderAtPath(dir + "/folder"));
}

TEST_F(VolumesTest, VolumeNamesAreLabels) {
    EXPECT_FALSE(qv::volnameAtURL("/proc").has_value()) << "a file system without a label has no name";
    EXPECT_FALSE(qv::volnameAtURL(dir + "/missing").has_value());
    // The root's label, when the root is a labelled disk we may read, checked against e2label.
    std::string source;
    for (const auto& e : qv::QVReadMountTable())
        if (e.mountPoint == "/" && e.fsType.rfind("ext", 0) == 0) source = e.source;
    if (source.empty() || ::access(source.c_str(), R_OK) != 0) GTEST_SKIP() << "no readable ext root device";
    qv::QVError error;
    auto label = qv::quickCommand("/usr/sbin/e2label", {source}, &error);
    ASSERT_TRUE(label.has_value());
    while (!label->empty() && label->back() == '\n') label->pop_back();
    EXPECT_EQ(qv::volnameAtURL(dir).value_or(""), *label) << "any path on the volume gives its name";
}

TEST_F(VolumesTest, NoteOfAChangeReachesWatchersAndChangesNothing) {
    fs::create_directories(dir + "/watched");
    std::ofstream(dir + "/watched/item") << "x";
    ::chmod((dir + "/watched/item").c_str(), 0640);
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_GE(::inotify_add_watch(fd, (dir + "/watched").c_str(), IN_ATTRIB), 0);
    qv::notePathChanged(dir + "/watched/item");
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1) << "the watcher of the folder hears of the item";
    alignas(inotify_event) char buffer[4096];
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    auto* event = reinterpret_cast<inotify_event*>(buffer);
    EXPECT_TRUE(event->mask & IN_ATTRIB);
    EXPECT_STREQ(event->name, "item");
    ::close(fd);
    struct stat st;
    ::stat((dir + "/watched/item").c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    qv::notePathChanged(dir + "/missing");  // nothing to tell, and no harm
}

} // namespace

// Path helpers: kinds of items, the volume and device a path lies on, desktop
// entries and the Desktop, and who holds a path open.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "disk/Locations.h"
#include "disk/URLHelpers.h"
#include "support/TempHome.h"

namespace fs = std::filesystem;
using namespace qv;

TEST(URLHelpers, ReachabilityAndImageDirectories) {
    test::TempHome home;
    const std::string root = home.root();
    QVError error;
    EXPECT_FALSE(checkResourceIsReachable(root + "/missing", &error));
    EXPECT_EQ(error.description, root + "/missing: No such file or directory");
    fs::create_symlink(root + "/missing", root + "/dangling");
    EXPECT_FALSE(checkResourceIsReachable(root + "/dangling", nullptr));

    auto make = [&](const std::string& name, const char* header) {
        fs::create_directories(root + "/" + name);
        if (header) std::ofstream(root + "/" + name + "/" + header) << "x";
        return root + "/" + name;
    };
    EXPECT_TRUE(isSparseBundle(make("a.sparsebundle", "Info.plist") + "/"));
    EXPECT_TRUE(isSparseBundle(make("b.sparsebundle", "Info.bckup"))) << "the header's copy suffices";
    EXPECT_FALSE(isSparseBundle(make("c.sparsebundle", nullptr)));
    EXPECT_FALSE(isSparseBundle(make("d.bundle", "Info.plist")));
    fs::create_directory_symlink(root + "/a.sparsebundle", root + "/e.sparsebundle");
    EXPECT_FALSE(isSparseBundle(root + "/e.sparsebundle")) << "a link to an image is not the image";
}

TEST(URLHelpers, VolumesDevicesAndNetworkFileSystems) {
    test::TempHome home;
    EXPECT_EQ(volume("/proc/self/status"), "/proc");
    EXPECT_EQ(volume("/dev/null"), "/dev");
    EXPECT_EQ(volume("/"), "/");
    EXPECT_EQ(volume(home.root() + "/missing"), "");
    EXPECT_FALSE(isInExternalVolume(home.root() + "/.local"));
    EXPECT_TRUE(isInExternalVolume("/proc/self"));
    EXPECT_FALSE(isNetworkDrive(home.root()));
    EXPECT_FALSE(isNetworkDrive("/proc")) << "external, but no network file system";
    for (const char* type : {"nfs4", "cifs", "fuse.sshfs", "9p", "ceph"}) EXPECT_TRUE(QVIsNetworkFileSystemType(type));
    for (const char* type : {"ext4", "tmpfs", "fuse.fuse2fs", "nfsd"}) EXPECT_FALSE(QVIsNetworkFileSystemType(type));
}

TEST(URLHelpers, DesktopEntriesAndTheDesktop) {
    test::TempHome home;
    EXPECT_TRUE(isApp("/opt/Tool.app/"));
    EXPECT_FALSE(isApp("/usr/bin/gnome-terminal"));
    const std::string apps = home.dataHome() + "/applications";
    fs::create_directories(apps + "/kde4");
    std::ofstream(apps + "/kde4/konsole.desktop") << "[Desktop Entry]\n";
    std::ofstream(home.root() + "/loose.desktop") << "[Desktop Entry]\n";
    EXPECT_EQ(bundleID(apps + "//kde4/./konsole.desktop"), "kde4-konsole.desktop");
    EXPECT_EQ(bundleID(home.root() + "/loose.desktop"), "loose.desktop");
    EXPECT_EQ(bundleID(apps + "/absent.desktop"), "");

    const std::string desktop = desktopURL();
    EXPECT_TRUE(isInDesktop(desktop + "/a/"));
    EXPECT_FALSE(isInDesktop(desktop + "/a/b"));
    EXPECT_FALSE(isInDesktop(desktop));
    EXPECT_FALSE(isInDesktop(desktop + "2/a")) << "a name that merely begins like the Desktop";
}

TEST(URLHelpers, ProcessesHoldingAPathComeFromLsof) {
    test::TempHome home;
    std::ofstream(home.root() + "/idle") << "x";
    EXPECT_FALSE(processesUsingThisURL(home.root() + "/idle")) << "lsof exits 1: nobody";
    std::ofstream held(home.root() + "/held");
    EXPECT_EQ(processesUsingThisURL(home.root() + "/held"), std::vector<pid_t>{getpid()});
}

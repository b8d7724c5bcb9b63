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

TEST(URLHelpers, ReachabilityAndSparseBundlesAreJudgedOnTheDisk) {
    test::TempHome home;
    const std::string root = home.root();
    QVError error;
    EXPECT_TRUE(checkResourceIsReachable(root, &error));
    EXPECT_FALSE(checkResourceIsReachable(root + "/missing", &error));
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_EQ(error.description, root + "/missing: No such file or directory");
    fs::create_symlink(root + "/missing", root + "/dangling");
    EXPECT_FALSE(checkResourceIsReachable(root + "/dangling", nullptr)) << "a link counts by what it leads to";
    EXPECT_FALSE(checkResourceIsReachable("", nullptr));

    auto bundle = [&](const std::string& name, const char* header) {
        fs::create_directories(root + "/" + name);
        if (header) std::ofstream(root + "/" + name + "/" + header) << "x";
        return root + "/" + name;
    };
    EXPECT_TRUE(isSparseBundle(bundle("a.sparsebundle", "Info.plist")));
    EXPECT_TRUE(isSparseBundle(bundle("b.sparsebundle", "Info.bckup"))) << "the copy of the header suffices";
    EXPECT_TRUE(isSparseBundle(root + "/a.sparsebundle/"));
    EXPECT_FALSE(isSparseBundle(bundle("c.sparsebundle", nullptr))) << "no header: just a directory";
    EXPECT_FALSE(isSparseBundle(bundle("d.bundle", "Info.plist")));
    std::ofstream(root + "/e.sparsebundle") << "a file";
    EXPECT_FALSE(isSparseBundle(root + "/e.sparsebundle"));
    fs::create_directory_symlink(root + "/a.sparsebundle", root + "/f.sparsebundle");
    EXPECT_FALSE(isSparseBundle(root + "/f.sparsebundle")) << "a link to an image is not the image";
    EXPECT_FALSE(isSparseBundle(root + "/missing.sparsebundle"));
}

TEST(URLHelpers, VolumesDevicesAndNetworkFileSystems) {
    test::TempHome home;
    EXPECT_EQ(volume("/proc/self/status"), "/proc");
    EXPECT_EQ(volume("/proc"), "/proc");
    EXPECT_EQ(volume("/dev/null"), "/dev");
    EXPECT_EQ(volume("/"), "/");
    EXPECT_EQ(volume(home.root() + "/missing"), "") << "an unresolvable path has no volume";
    const std::string homeVolume = volume(home.root());
    EXPECT_FALSE(homeVolume.empty());
    EXPECT_EQ(home.root().rfind(homeVolume == "/" ? "/" : homeVolume + "/", 0), 0u);

    EXPECT_FALSE(isInExternalVolume(home.root()));
    EXPECT_FALSE(isInExternalVolume(home.root() + "/.local"));
    EXPECT_TRUE(isInExternalVolume("/proc/self"));
    EXPECT_FALSE(isInExternalVolume(home.root() + "/missing"));

    EXPECT_FALSE(isNetworkDrive(home.root())) << "the home volume is local";
    EXPECT_FALSE(isNetworkDrive("/proc")) << "external, but not a network file system";
    for (const char* type : {"nfs", "nfs4", "cifs", "smb3", "fuse.sshfs", "9p", "afs", "ceph", "glusterfs"})
        EXPECT_TRUE(QVIsNetworkFileSystemType(type)) << type;
    for (const char* type : {"ext4", "btrfs", "tmpfs", "fuse.fuse2fs", "fuse", "vfat", "nfsd", ""})
        EXPECT_FALSE(QVIsNetworkFileSystemType(type)) << type;
}

TEST(URLHelpers, ApplicationsAndTheirDesktopFileIds) {
    test::TempHome home;
    EXPECT_TRUE(isApp("/usr/share/applications/org.gnome.Terminal.desktop"));
    EXPECT_TRUE(isApp("/opt/Tool.app"));
    EXPECT_TRUE(isApp("/opt/Tool.app/"));
    EXPECT_FALSE(isApp("/opt/Tool.apps"));
    EXPECT_FALSE(isApp("/usr/bin/gnome-terminal"));

    const std::string apps = home.dataHome() + "/applications";
    fs::create_directories(apps + "/kde4");
    std::ofstream(apps + "/org.example.Viewer.desktop") << "[Desktop Entry]\n";
    std::ofstream(apps + "/kde4/konsole.desktop") << "[Desktop Entry]\n";
    std::ofstream(home.root() + "/loose.desktop") << "[Desktop Entry]\n";
    fs::create_directories(home.root() + "/dir.desktop");
    EXPECT_EQ(bundleID(apps + "/org.example.Viewer.desktop"), "org.example.Viewer.desktop");
    EXPECT_EQ(bundleID(apps + "/kde4/konsole.desktop"), "kde4-konsole.desktop") << "subdirectories join with '-'";
    EXPECT_EQ(bundleID(apps + "//kde4/./konsole.desktop"), "kde4-konsole.desktop");
    EXPECT_EQ(bundleID(home.root() + "/loose.desktop"), "loose.desktop");
    EXPECT_EQ(bundleID(home.root() + "/dir.desktop"), "");
    EXPECT_EQ(bundleID(apps + "/absent.desktop"), "");
    EXPECT_EQ(bundleID("/opt/Tool.app"), "");
}

TEST(URLHelpers, OnlyItemsDirectlyOnTheDesktopAreInIt) {
    test::TempHome home;
    const std::string desktop = desktopURL();
    ASSERT_FALSE(desktop.empty());
    EXPECT_TRUE(isInDesktop(desktop + "/a"));
    EXPECT_TRUE(isInDesktop(desktop + "/a/"));
    EXPECT_FALSE(isInDesktop(desktop + "/a/b"));
    EXPECT_FALSE(isInDesktop(desktop));
    EXPECT_FALSE(isInDesktop(desktop + "/"));
    EXPECT_FALSE(isInDesktop(desktop + "2/a")) << "a name that merely begins like the Desktop";
    EXPECT_FALSE(isInDesktop(fs::path(desktop).parent_path().string() + "/a"));
    EXPECT_FALSE(isInDesktop(""));
}

TEST(URLHelpers, ProcessesHoldingAPathComeFromLsof) {
    test::TempHome home;
    const std::string idle = home.root() + "/nobody-holds-this";
    std::ofstream(idle) << "x";
    EXPECT_FALSE(processesUsingThisURL(idle).has_value()) << "lsof exits 1: nobody";
    EXPECT_FALSE(processesUsingThisURL(home.root() + "/missing").has_value());

    const std::string held = home.root() + "/held-open";
    std::ofstream keep(held);
    keep << "open";
    keep.flush();
    auto pids = processesUsingThisURL(held);
    ASSERT_TRUE(pids.has_value());
    EXPECT_EQ(*pids, std::vector<pid_t>{getpid()});
}

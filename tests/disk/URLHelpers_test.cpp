// Path helpers: image directories, the volume a path lies on, desktop entries
// and the Desktop.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "vault/Locations.h"
#include "disk/URLHelpers.h"
#include "support/TempHome.h"

namespace fs = std::filesystem;
using namespace qv;

TEST(URLHelpers, ImageDirectoriesVolumesAndDesktopEntries) {
    test::TempHome home;
    const std::string root = home.root();
    auto make = [&](const std::string& name, const char* header) {
        fs::create_directories(root + "/" + name);
        if (header) std::ofstream(root + "/" + name + "/" + header) << "x";
        return root + "/" + name;
    };
    EXPECT_TRUE(isSparseBundle(make("a.sparsebundle", "Info.plist") + "/"));
    EXPECT_TRUE(isSparseBundle(make("b.sparsebundle", "Info.bckup"))) << "the header's copy suffices";
    EXPECT_FALSE(isSparseBundle(make("c.sparsebundle", nullptr)));
    fs::create_directory_symlink(root + "/a.sparsebundle", root + "/e.sparsebundle");
    EXPECT_FALSE(isSparseBundle(root + "/e.sparsebundle")) << "a link to an image is not the image";

    EXPECT_EQ(volume("/proc/self/status"), "/proc");
    EXPECT_EQ(volume(root + "/missing"), "");
    EXPECT_FALSE(isNetworkDrive("/proc")) << "external, but no network file system";
    EXPECT_TRUE(QVIsNetworkFileSystemType("fuse.sshfs"));
    EXPECT_FALSE(QVIsNetworkFileSystemType("nfsd"));

    const std::string apps = home.dataHome() + "/applications";
    make(".local/share/applications/kde4", "konsole.desktop");
    EXPECT_EQ(bundleID(apps + "//kde4/./konsole.desktop"), "kde4-konsole.desktop");
    EXPECT_FALSE(isInDesktop(desktopURL() + "2/a")) << "a name that merely begins like the Desktop";
}

// Where a Storage keeps its temporary and mount directories and a folder's
// images: made privately, never an existing path, and clear refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>

#include "vault/Locations.h"
#include "disk/StorageLocations.h"
#include "support/TempHome.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {
mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode;  // kind and permissions
}
QVRecordRef storageAt(const std::string& dir) { return QVStorageMake("x", URLValue{dir}); }
} // namespace

TEST(StorageLocations, TempAndMountDirectoriesAreNewAndPrivate) {
    test::TempHome home;
    QVRecordRef storage = QVStorageDefault();
    EXPECT_EQ(StorageRef{storage}.url().toURLPath(), home.dataHome() + "/com.marrowfen.Quillvane3/Data");
    const std::string temp = QVStorageTempURL(storage);
    EXPECT_EQ(temp, defaultDiskImageLocationURL() + "/Temp");
    EXPECT_EQ(modeOf(temp), 040700u);

    fs::create_directories(temp + "/Existing");
    fs::create_symlink(temp + "/nowhere", temp + "/Dangling");
    std::set<std::string> seen = {temp + "/Existing", temp + "/Dangling"};
    for (int i = 0; i < 100; ++i) {
        std::string dir = QVStorageTempMountURL(storage);
        EXPECT_TRUE(seen.insert(dir).second) << "an existing path came back: " << dir;
        EXPECT_EQ(fs::path(dir).parent_path(), temp);
        EXPECT_EQ(modeOf(dir), 040700u);
    }

    // A file where Temp should be is left alone; nobody may make directories in /proc.
    fs::create_directories(home.root() + "/blocked");
    std::ofstream(home.root() + "/blocked/Temp") << "keep";
    EXPECT_EQ(QVStorageTempURL(storageAt(home.root() + "/blocked")), "");
    EXPECT_EQ(fs::file_size(home.root() + "/blocked/Temp"), 4u);
    EXPECT_EQ(QVStorageTempMountURL(storageAt(home.root() + "/blocked")), "");
}

TEST(StorageLocations, ImageLocationsOfAFolder) {
    test::TempHome home;
    QVRecordRef folder = QVFolderCreate(storageAt(home.root() + "/Elsewhere"), URLValue{"/home/u/Private"});
    std::string image = "/" + FolderRef{folder}.uuid().toString() + ".sparsebundle";
    EXPECT_EQ(DiskInfoRef{QVDiskInfoForFolder(folder)}.url().toURLPath(), defaultDiskImageLocationURL() + image)
        << "the default storage, whatever the folder's own";
    EXPECT_EQ(DiskInfoRef{QVDiskInfoTempForFolder(folder)}.url().toURLPath(), home.root() + "/Elsewhere/Temp" + image);
    FolderRef{folder}.setUuid(Value());
    EXPECT_FALSE(QVDiskInfoDefaultForFolder(folder)) << "not a bare \".sparsebundle\"";
}

// Image and temporary locations of a Storage: made where they belong, private,
// never an existing path, and clear failures where they can't be made.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>

#include "disk/Locations.h"
#include "disk/StorageLocations.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "vault/QVRecord.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

struct LogCapture {
    std::vector<std::string> lines;
    LogCapture() {
        QVLogSetSink([this](const std::string& line) { lines.push_back(line); });
    }
    ~LogCapture() { QVLogSetSink(nullptr); }
    bool has(const std::string& text) const {
        for (const auto& line : lines)
            if (line.find(text) != std::string::npos) return true;
        return false;
    }
};

mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

QVRecordRef folderWithStorage(const std::string& storageDir) {
    return QVFolderCreate(QVStorageMake("Elsewhere", URLValue{storageDir}), URLValue{"/home/u/Private"});
}

} // namespace

TEST(StorageLocations, TheDefaultStorageIsSharedAndFollowsTheDataLocation) {
    std::string firstURL;
    {
        test::TempHome home;
        QVRecordRef storage = QVStorageDefault();
        EXPECT_EQ(StorageRef{storage}.name().toString(), "Default");
        firstURL = StorageRef{storage}.url().toURLPath();
        EXPECT_EQ(firstURL, home.dataHome() + "/com.marrowfen.Quillvane3/Data");
        EXPECT_EQ(QVStorageDefault(), storage) << "one shared record";
    }
    test::TempHome other;
    EXPECT_EQ(StorageRef{QVStorageDefault()}.url().toURLPath(), defaultDiskImageLocationURL());
    EXPECT_NE(StorageRef{QVStorageDefault()}.url().toURLPath(), firstURL);
}

TEST(StorageLocations, TempIsMadePrivatelyWithItsParentsAndRefusedWhereItCantBe) {
    test::TempHome home;
    std::string temp = QVStorageTempURL(QVStorageDefault());
    EXPECT_EQ(temp, defaultDiskImageLocationURL() + "/Temp");
    EXPECT_TRUE(fs::is_directory(temp));
    EXPECT_EQ(modeOf(temp), 0700u);
    EXPECT_EQ(modeOf(defaultDiskImageLocationURL()), 0700u) << "the intermediate Data too";
    EXPECT_EQ(QVStorageTempURL(QVStorageDefault()), temp) << "an existing Temp is kept";

    LogCapture log;
    // A file where the directory should be: no Temp, and the file is left alone.
    std::string blocked = home.root() + "/blocked";
    fs::create_directories(blocked);
    std::ofstream(blocked + "/Temp") << "keep me";
    EXPECT_EQ(QVStorageTempURL(QVStorageMake("x", URLValue{blocked})), "");
    EXPECT_TRUE(log.has("couldn't create tmp directory at: '" + blocked + "/Temp'. Reason: Not a directory"));
    EXPECT_EQ(fs::file_size(blocked + "/Temp"), 7u);

    // A place nobody may make directories, not even root.
    EXPECT_EQ(QVStorageTempURL(QVStorageMake("x", URLValue{"/proc/self"})), "");
    EXPECT_TRUE(log.has("couldn't create tmp directory at: '/proc/self/Temp'. Reason: "));
    EXPECT_EQ(QVStorageTempURL(nullptr), "");
    EXPECT_EQ(QVStorageTempURL(QVRecordForProtocol(Storage)), "") << "a storage without a url";
    EXPECT_TRUE(log.has("couldn't create tmp directory at: '(null)'"));
}

TEST(StorageLocations, MountDirectoriesAreNewPrivateAndNamedFromTheirAlphabet) {
    test::TempHome home;
    QVRecordRef storage = QVStorageDefault();
    std::string temp = QVStorageTempURL(storage);
    // Entries already in Temp, of every kind, must never come back as an answer.
    fs::create_directories(temp + "/Existing");
    std::ofstream(temp + "/File");
    fs::create_symlink(temp + "/nowhere", temp + "/Dangling");
    std::set<std::string> before;
    for (const auto& entry : fs::directory_iterator(temp)) before.insert(entry.path().string());

    std::set<std::string> answers;
    for (int i = 0; i < 200; ++i) {
        std::string dir = QVStorageTempMountURL(storage);
        ASSERT_FALSE(dir.empty());
        EXPECT_EQ(fs::path(dir).parent_path().string(), temp);
        EXPECT_EQ(before.count(dir), 0u);
        EXPECT_TRUE(answers.insert(dir).second) << "each answer is a new directory: " << dir;
        EXPECT_TRUE(fs::is_directory(dir) && fs::is_empty(dir));
        EXPECT_EQ(modeOf(dir), 0700u);
        std::string name = fs::path(dir).filename().string();
        ASSERT_EQ(name.size(), 10u);
        for (unsigned char c : name) EXPECT_TRUE(c >= 65 && c <= 122) << name;
    }

    // Temp is there but nothing can be made in it.
    LogCapture log;
    std::string odd = home.root() + "/odd";
    fs::create_directories(odd);
    fs::create_directory_symlink("/proc/self", odd + "/Temp");
    EXPECT_EQ(QVStorageTempMountURL(QVStorageMake("x", URLValue{odd})), "");
    EXPECT_TRUE(log.has("couldn't create mount directory at: '" + odd + "/Temp/"));
    EXPECT_EQ(QVStorageTempMountURL(nullptr), "");
}

TEST(StorageLocations, ImageLocationsOfAFolder) {
    test::TempHome home;
    std::string elsewhere = home.root() + "/Elsewhere";
    QVRecordRef folder = folderWithStorage(elsewhere);
    std::string uuid = FolderRef{folder}.uuid().toString();

    QVRecordRef info = QVDiskInfoDefaultForFolder(folder);
    ASSERT_TRUE(info);
    EXPECT_EQ(DiskInfoRef{info}.url().toURLPath(), defaultDiskImageLocationURL() + "/" + uuid + ".sparsebundle")
        << "the default location, whatever the folder's storage";
    EXPECT_TRUE(DiskInfoRef{info}.capacity().isNull());
    EXPECT_NE(QVDiskInfoForFolder(folder), info) << "a new record each time";

    QVRecordRef temp = QVDiskInfoTempForFolder(folder);
    ASSERT_TRUE(temp);
    EXPECT_EQ(DiskInfoRef{temp}.url().toURLPath(), elsewhere + "/Temp/" + uuid + ".sparsebundle");
    EXPECT_TRUE(fs::is_directory(elsewhere + "/Temp"));
    EXPECT_FALSE(fs::exists(elsewhere + "/Temp/" + uuid + ".sparsebundle")) << "only named, not made";

    LogCapture log;
    EXPECT_FALSE(QVDiskInfoDefaultForFolder(nullptr));
    EXPECT_FALSE(QVDiskInfoTempForFolder(nullptr));
    EXPECT_FALSE(QVDiskInfoTempForFolder(folderWithStorage("/proc/self"))) << "no Temp, no location";
    QVRecordRef noUUID = folderWithStorage(elsewhere);
    FolderRef{noUUID}.setUuid(Value());
    EXPECT_FALSE(QVDiskInfoDefaultForFolder(noUUID)) << "not \".sparsebundle\" in the data folder";
    EXPECT_TRUE(log.has("failed because: !folder.uuid"));
}

// What a failed, cancelled or interrupted restore deletes from the folder:
// exactly the names the image holds and the copy's working folders, however
// they are protected; nothing else that lies there.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "support/TempHome.h"
#include "tasks/DecryptFolderTask.h"

namespace {

namespace fs = std::filesystem;
using qv::DecryptFolderTask;

std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class RestoredCopies : public ::testing::Test {
protected:
    void SetUp() override {
        dir = qv::test::makeTempDir("qvrestore");
        image = dir + "/image";
        folder = dir + "/folder";
        fs::create_directories(image + "/docs/deep");
        fs::create_directories(folder);
        for (const char* name : {"a.txt", "with\nnewline"}) std::ofstream(image + "/" + name) << "image";
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
    std::string image, folder;
};

TEST_F(RestoredCopies, OnlyTheImagesNamesAndUnfinishedCopiesGo) {
    std::ofstream(folder + "/a.txt") << "copied";
    std::ofstream(folder + "/with\nnewline") << "copied";
    fs::create_directories(folder + "/docs/deep");
    std::ofstream(folder + "/docs/deep/f") << "copied";
    fs::permissions(folder + "/docs/deep", fs::perms::owner_read | fs::perms::owner_exec); // as the image had it
    fs::create_directories(folder + "/.qvcopy-Ab12/half");
    std::ofstream(folder + "/mine.txt") << "not the image's";
    fs::create_directories(folder + "/docs2");

    const auto cleanup = DecryptFolderTask::removeRestoredCopies(image, folder);
    EXPECT_TRUE(cleanup.clean());
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"docs2", "mine.txt"}));
}

TEST_F(RestoredCopies, AListingThatFailsSaysWhich) {
    auto cleanup = DecryptFolderTask::removeRestoredCopies(dir + "/gone", folder);
    EXPECT_EQ(cleanup.unlisted, "encrypted");
    EXPECT_FALSE(cleanup.listError.empty());
    cleanup = DecryptFolderTask::removeRestoredCopies(image, dir + "/gone");
    EXPECT_EQ(cleanup.unlisted, "folder");
    EXPECT_FALSE(cleanup.clean());
}

} // namespace

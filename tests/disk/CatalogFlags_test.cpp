// The invisible and custom-icon flags as the files desktops read: a folder's
// ".hidden" list and a folder's ".directory" entry, other contents kept.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "disk/CatalogFlags.h"
#include "disk/TreeCompare.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;
using qv::test::readWhole;

class CatalogFlagsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = qv::test::makeTempDir("qvflags");
        folder = dir + "/Folder";
        fs::create_directories(folder);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
    std::string folder;
};

// Both flags edit files the user may have filled: whatever else they hold stays.
TEST_F(CatalogFlagsTest, FlagsAreLinesOfDesktopFilesWhoseOtherContentsStay) {
    std::ofstream(dir + "/.hidden") << "lost+found\nother";  // no final newline
    ::chmod((dir + "/.hidden").c_str(), 0600);
    ASSERT_TRUE(qv::modifyCatologInfoAtPathIsVisible(folder, false));
    ASSERT_TRUE(qv::modifyCatologInfoAtPathIsVisible(folder + "/", false)) << "twice changes nothing";
    EXPECT_EQ(readWhole(dir + "/.hidden"), "lost+found\nother\nFolder\n");
    EXPECT_EQ(qv::QVCatalogFlags(folder), qv::kIsInvisible);
    struct stat st;
    ::stat((dir + "/.hidden").c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "the list keeps its mode";
    ASSERT_TRUE(qv::modifyCatologInfoAtPathIsVisible(folder, true));
    EXPECT_EQ(readWhole(dir + "/.hidden"), "lost+found\nother\n");
    // A name a line can't hold is refused without a trace.
    fs::create_directories(dir + "/new\nline");
    EXPECT_FALSE(qv::modifyCatalogFlag(qv::kIsInvisible, dir + "/new\nline", true));
    EXPECT_EQ(readWhole(dir + "/.hidden"), "lost+found\nother\n");

    const std::string mine = "[Settings]\nHiddenFilesShown=true\n\n[Desktop Entry]\nName=Mine\nIcon[de]=x\n";
    std::ofstream(folder + "/.directory") << mine;
    EXPECT_FALSE(qv::folderHasCustomIcon(folder)) << "a localized icon is another key";
    ASSERT_TRUE(qv::modifyCatalogFlag(qv::kHasCustomIcon, folder, true));
    EXPECT_EQ(readWhole(folder + "/.directory"),
              "[Settings]\nHiddenFilesShown=true\n\n[Desktop Entry]\nIcon=./.folder.png\nName=Mine\nIcon[de]=x\n");
    ASSERT_TRUE(qv::modifyCatalogFlag(qv::kHasCustomIcon, folder, false));
    EXPECT_EQ(readWhole(folder + "/.directory"), mine);
}

} // namespace

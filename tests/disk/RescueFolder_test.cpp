// The rescue folder of a restore: the first free name, a claim that lives as
// long as its holder, and the start-up sweep that removes only the folders no
// living restore claims. Also how a trashed image is found again.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <filesystem>
#include <fstream>

#include "disk/RescueFolder.h"
#include "disk/TempLeftovers.h"
#include "disk/Trash.h"
#include "support/QtApp.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;
using namespace qv;

class RescueFolderTest : public ::testing::Test {
protected:
    void SetUp() override { temp = qv::test::makeTempDir("qvrescue") + "/Temp"; }
    void TearDown() override { fs::remove_all(fs::path(temp).parent_path()); }
    std::string temp;
};

TEST_F(RescueFolderTest, NamesRunOnFromTheFirstFreeOne) {
    EXPECT_TRUE(QVIsRescueFolderName("_Rescued Items"));
    EXPECT_TRUE(QVIsRescueFolderName("_Rescued Items_12"));
    for (const char* other : {"_Rescued Items_", "_Rescued Items_1a", "_Rescued Items 1", "Rescued Items", ""})
        EXPECT_FALSE(QVIsRescueFolderName(other)) << other;

    fs::create_directories(temp + "/_Rescued Items");
    fs::create_directories(temp + "/_Rescued Items_1");
    auto claim = QVRescueFolderClaim::make(temp);
    ASSERT_TRUE(claim);
    EXPECT_EQ(claim->path(), temp + "/_Rescued Items_2");
    EXPECT_TRUE(fs::is_directory(claim->path()));
    auto next = QVRescueFolderClaim::make(temp);
    ASSERT_TRUE(next);
    EXPECT_EQ(next->path(), temp + "/_Rescued Items_3");
    EXPECT_FALSE(QVRescueFolderClaim::make("/proc/no/such/place")) << "nothing where nothing can be made";
}

TEST_F(RescueFolderTest, TheSweepTakesOnlyWhatNoRestoreClaims) {
    auto claim = QVRescueFolderClaim::make(temp);
    ASSERT_TRUE(claim);
    const std::string held = claim->path();
    fs::create_directories(temp + "/_Rescued Items_7");                       // a dead restore's, never claimed again
    std::ofstream(QVRescueFolderOwnerFile(temp + "/_Rescued Items_9")) << ""; // its folder long gone
    EXPECT_TRUE(QVRescueFolderIsClaimed(held));
    EXPECT_FALSE(QVRescueFolderIsClaimed(temp + "/_Rescued Items_7"));

    QVCleanTempLeftovers(temp);
    EXPECT_TRUE(fs::is_directory(held)) << "a living restore keeps its folder";
    EXPECT_TRUE(fs::exists(QVRescueFolderOwnerFile(held)));
    EXPECT_FALSE(fs::exists(temp + "/_Rescued Items_7"));
    EXPECT_FALSE(fs::exists(QVRescueFolderOwnerFile(temp + "/_Rescued Items_9")));

    int err = 0;
    EXPECT_TRUE(claim->removeFolder(&err)) << err;
    claim.reset();
    QVCleanTempLeftovers(temp);
    EXPECT_FALSE(fs::exists(temp)) << "Temp goes once empty";
}

TEST(TrashedItem, IsFoundByWhereItCameFrom) {
    qv::test::qtApp();
    qv::test::TempHome home;
    const std::string image = home.root() + "/Data/abc.sparsebundle";
    fs::create_directories(image);
    EXPECT_EQ(QVTrashedItemFrom(image), "");
    QVError error;
    ASSERT_TRUE(QVMoveToTrash(image, &error, nullptr)) << error.description;
    const std::string found = QVTrashedItemFrom(image);
    EXPECT_TRUE(fs::is_directory(found)) << found;
    EXPECT_EQ(fs::path(found).filename(), "abc.sparsebundle");
    EXPECT_EQ(QVTrashedItemFrom(home.root() + "/Data/other.sparsebundle"), "");
}

} // namespace

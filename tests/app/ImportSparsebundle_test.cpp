// The import screen's logic without its widgets: when OK may be pressed and
// what the info line says, which folders may serve as the mount point, and
// what the prepared folder carries.
#include "app/ImportSparsebundle.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "notify/QVNotificationCenter.h"
#include "support/TempHome.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {
namespace {

namespace fs = std::filesystem;

class ImportSparsebundleTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(registerQuillvaneDefaults());
        bundle = dir("Old Images/Mine.sparsebundle");
        std::ofstream(bundle + "/Info.plist") << "x";
    }
    void TearDown() override { ImportSparsebundle::singleton().cancel(); }

    std::string dir(const std::string& relative) {
        fs::create_directories(home.root() + "/" + relative);
        return home.root() + "/" + relative;
    }

    test::TempHome home;
    std::string bundle;
};

TEST_F(ImportSparsebundleTest, OkNeedsTwoEqualPasswordsAndAMountPoint) {
    ImportSparsebundle& screen = ImportSparsebundle::folderWithURL(bundle);
    EXPECT_FALSE(screen.okEnabled());
    EXPECT_FALSE(screen.infoVisible());

    screen.setPassword1("secret");
    EXPECT_FALSE(screen.okEnabled());
    EXPECT_FALSE(screen.infoVisible()) << "the info shows only once the second field holds text";
    screen.setPassword2("secreT");
    EXPECT_TRUE(screen.infoVisible());
    EXPECT_TRUE(screen.infoIsWarning());
    EXPECT_EQ(screen.infoText(), "Passwords do not match!");
    EXPECT_FALSE(screen.okEnabled());

    screen.setPassword2("secret");
    EXPECT_EQ(screen.infoText(), "Passwords match");
    EXPECT_FALSE(screen.infoIsWarning());
    EXPECT_FALSE(screen.okEnabled()) << "matching passwords without a mount point";

    QVError error;
    ASSERT_TRUE(screen.chooseMountPoint(dir("Mine"), &error)) << error.description;
    EXPECT_TRUE(screen.okEnabled());
    screen.setPassword1("");
    EXPECT_FALSE(screen.okEnabled()) << "an empty first password";

    // A new bundle starts from an empty screen.
    ImportSparsebundle::folderWithURL(bundle);
    EXPECT_TRUE(screen.mountPoint().empty());
    EXPECT_FALSE(screen.okEnabled());
}

TEST_F(ImportSparsebundleTest, OnlyAnEmptyFolderThatPassesTheIntakeServesAsMountPoint) {
    ImportSparsebundle& screen = ImportSparsebundle::folderWithURL(bundle);
    QVError error;
    EXPECT_FALSE(screen.chooseMountPoint(bundle, &error)) << "a sparse bundle is no folder";
    EXPECT_FALSE(error.empty());
    std::ofstream(home.root() + "/plain.txt") << "x";
    EXPECT_FALSE(screen.chooseMountPoint(home.root() + "/plain.txt", &error));
    const std::string full = dir("Full");
    std::ofstream(full + "/kept.txt") << "x";
    error = {};
    EXPECT_FALSE(screen.chooseMountPoint(full, &error)) << "a volume over it would hide its files";
    EXPECT_NE(error.description.find("not empty"), std::string::npos) << error.description;
    error = {};
    EXPECT_FALSE(screen.chooseMountPoint(home.root(), &error)) << "the intake refuses the home directory";
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(screen.mountPoint().empty()) << "a refusal chooses nothing";

    ASSERT_TRUE(screen.chooseMountPoint(dir("Mine"), &error));
    EXPECT_EQ(screen.mountPoint(), home.root() + "/Mine");
}

TEST_F(ImportSparsebundleTest, ThePreparedFolderPointsAtTheBundleWhereItLies) {
    ImportSparsebundle& screen = ImportSparsebundle::folderWithURL(bundle);
    const QVRecordRef folder = FolderFaceRef{screen.folderFace()}.folder().as<QVRecord>();
    ASSERT_TRUE(folder);
    EXPECT_EQ(DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath(), bundle);
    EXPECT_FALSE(FolderRef{folder}.encrypted().toBool());
}

} // namespace
} // namespace qv

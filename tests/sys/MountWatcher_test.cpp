// Notices of volumes: which mount points came and went between two reads of a
// table in the mountinfo format, and the watcher reporting only real changes.
#include "sys/MountWatcher.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/QtApp.h"
#include "support/TempHome.h"

namespace {

using qv::QVMountChanges;

std::string line(int id, const std::string& point) {
    return std::to_string(id) + " 1 0:" + std::to_string(id) + " / " + point + " rw - ext4 /dev/x rw\n";
}

class MountWatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        qv::test::qtApp();
        dir = qv::test::makeTempDir("qvwatch");
        path = dir + "/mountinfo";
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    void write(const std::string& text) { std::ofstream(path, std::ios::binary | std::ios::trunc) << text; }

    std::string dir, path;
};

TEST(MountPointsDiff, MountedAndUnmountedAreTheTwoDifferences) {
    const auto changes = qv::QVDiffMountPoints({"/", "/home/u/A", "/home/u/B"}, {"/", "/home/u/B", "/home/u/C", "/x"});
    EXPECT_EQ(changes.mounted, (std::vector<std::string>{"/home/u/C", "/x"}));
    EXPECT_EQ(changes.unmounted, (std::vector<std::string>{"/home/u/A"}));
    EXPECT_TRUE(qv::QVDiffMountPoints({"/a"}, {"/a"}).empty());
}

TEST_F(MountWatcherTest, ReportsWhatChangedSinceTheLastLookAndNothingElse) {
    write(line(20, "/") + line(21, "/home/u/My\\040Folder"));
    std::vector<QVMountChanges> heard;
    qv::QVMountWatcher watcher([&](const QVMountChanges& c) { heard.push_back(c); });
    ASSERT_TRUE(watcher.start(path));

    watcher.check();
    EXPECT_TRUE(heard.empty()) << "an unchanged table reports nothing";

    // A second mount on the same point (stacked) is no new mount point.
    write(line(20, "/") + line(21, "/home/u/My\\040Folder") + line(22, "/home/u/My\\040Folder") +
          line(23, "/media/usb"));
    watcher.check();
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].mounted, (std::vector<std::string>{"/media/usb"}));
    EXPECT_TRUE(heard[0].unmounted.empty());

    write(line(20, "/") + line(23, "/media/usb"));
    watcher.check();
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[1].unmounted, (std::vector<std::string>{"/home/u/My Folder"})) << "the kernel's escape undone";
}

TEST(MountWatcherStart, AMissingTableIsRefused) {
    qv::QVMountWatcher watcher([](const QVMountChanges&) {});
    EXPECT_FALSE(watcher.start("/nonexistent/mountinfo"));
}

} // namespace

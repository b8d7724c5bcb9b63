// The mount table's watcher on the real table of this process: a volume
// attached by qv-image, as any other program would, is heard through the
// kernel's mark on the event loop, and so is its detach.
#include "sys/MountWatcher.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "image/ImageTestSupport.h"
#include "support/QtApp.h"

namespace qv {
namespace {

bool contains(const std::vector<std::string>& paths, const std::string& path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

TEST(MountWatcherOnTheRealTable, HearsAVolumeComeAndGo) {
    test::qtApp();
    test::ImageSandbox sandbox;
    const std::string image = sandbox.createOrFail("watched.sparsebundle", "watch password", 64);
    const std::string mountPoint = sandbox.makeDir("Watched Folder");

    std::vector<std::string> mounted, unmounted;
    QVMountWatcher watcher([&](const QVMountChanges& changes) {
        mounted.insert(mounted.end(), changes.mounted.begin(), changes.mounted.end());
        unmounted.insert(unmounted.end(), changes.unmounted.begin(), changes.unmounted.end());
    });
    ASSERT_TRUE(watcher.start());

    test::CommandResult r = sandbox.attach(image, mountPoint, "watch password");
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    // Only the event loop turns here: no one calls check() by hand.
    EXPECT_TRUE(test::processEventsUntil([&] { return contains(mounted, mountPoint); }, 20000));

    r = sandbox.detach(mountPoint);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_TRUE(test::processEventsUntil([&] { return contains(unmounted, mountPoint); }, 20000));
}

} // namespace
} // namespace qv

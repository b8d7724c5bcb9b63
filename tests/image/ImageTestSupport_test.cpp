// The helpers the qv-image tests rely on: a runner that gets the bytes and
// the end of a child right, and a sandbox whose teardown really leaves no
// mount, loop device or process behind.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

TEST(ImageTestRunner, PassesBytesBothWaysAndReportsHowTheChildEnded) {
    // Large input and output at once: no deadlock, no byte added or lost.
    CommandOptions o;
    o.input = patternBytes(1, 3 << 20) + "\n\0tail";
    CommandResult r = runCommand({"cat"}, o);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out == *o.input) << r.out.size() << " bytes back";

    r = runCommand({"sh", "-c", "printf out; printf err >&2; exit 7"});
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.exitCode, 7);
    EXPECT_EQ(r.out, "out");
    EXPECT_EQ(r.err, "err");

    r = runCommand({"sh", "-c", "kill -9 $$"});
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.termSignal, SIGKILL);

    // No input given: stdin is empty, not the test's own.
    r = runCommand({"cat"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "");

    o = {};
    o.env = {{"QV_PROBE", "a b"}};
    o.cwd = "/";
    r = runCommand({"sh", "-c", "printf '%s|%s' \"$QV_PROBE\" \"$(pwd)\""}, o);
    EXPECT_EQ(r.out, "a b|/");

    o = {};
    o.timeoutSeconds = 1;
    r = runCommand({"sleep", "20"}, o);
    EXPECT_TRUE(r.timedOut);
}

TEST(ImageTestRunner, NoticesABackgroundProcessThatKeepsTheOutputOpen) {
    CommandResult r = runCommand({"sh", "-c", "sleep 60 & echo $!"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.pipesHeldOpen);
    pid_t left = pid_t(std::atoi(r.out.c_str()));
    ASSERT_GT(left, 0) << r.out;
    EXPECT_EQ(processName(left), "sleep");
    ::kill(left, SIGKILL);

    r = runCommand({"sh", "-c", "sleep 60 >/dev/null 2>&1 </dev/null & echo $!"});
    EXPECT_FALSE(r.pipesHeldOpen);
    ::kill(pid_t(std::atoi(r.out.c_str())), SIGKILL);
}

TEST(ImageTestSandbox, TeardownLeavesNoMountLoopDeviceOrProcess) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount";
    auto box = std::make_unique<ImageSandbox>();
    const std::string root = box->root();
    const std::string disk = box->path("plain.img");
    ASSERT_EQ(runCommand({"truncate", "-s", "32M", disk}).exitCode, 0);
    ASSERT_EQ(runCommand({"mkfs.ext4", "-q", "-F", disk}).exitCode, 0);
    const std::string viaFuse = box->makeDir("fuse"), viaLoop = box->makeDir("loop");
    CommandResult r = runCommand({"fuse2fs", disk, viaFuse, "-o", "ro"});
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    r = runCommand({"mount", "-o", "loop,ro", disk, viaLoop});
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    ASSERT_TRUE(isMountPoint(viaFuse) && isMountPoint(viaLoop));
    EXPECT_FALSE(loopDevicesBackedUnder(root).empty());
    // Processes that hold the mounts: one of ours, one whose parent is gone.
    const pid_t inside = startHolder({"/bin/sh"}, viaFuse + "/lost+found");
    r = runCommand({"sh", "-c", "cd \"$1\" && (sleep 120 >/dev/null 2>&1 </dev/null &) ; true", "sh", viaLoop});
    ASSERT_EQ(r.exitCode, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_GE(processesUsing(root).size(), 3u) << "fuse2fs, the shell and the orphan";

    box.reset();
    EXPECT_FALSE(fs::exists(root));
    for (const auto& m : mountTable()) EXPECT_NE(m.mountPoint.rfind(root, 0), 0u) << m.mountPoint;
    EXPECT_TRUE(loopDevicesBackedUnder(root).empty());
    EXPECT_TRUE(processesUsing(root).empty());
    int status;
    // Reaped by the teardown or waiting to be: either way no longer running.
    EXPECT_TRUE(::waitpid(inside, &status, WNOHANG) == inside || ::kill(inside, 0) != 0) << "the holder lives on";
}

} // namespace

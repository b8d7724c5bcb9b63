// Images side by side, and an ordinary user running the whole cycle without
// any privilege.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "users-test-password";

uid_t ownerOfProcess(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("Uid:", 0) == 0) return uid_t(std::stoul(line.substr(4)));
    return uid_t(-1);
}

TEST(ImageUsers, ImagesAttachedAtOnceKeepTheirOwnContents) {
    if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
    ImageSandbox box;
    const std::string red = box.createOrFail("red.sparsebundle", kPassword + "red", 64);
    const std::string blue = box.createOrFail("blue.sparsebundle", kPassword + "blue", 64);
    std::string redMnt = box.makeDir("red");
    const std::string blueMnt = box.makeDir("blue");
    ASSERT_FALSE(HasFailure());
    // One through the environment's layer, one through the leading option for the kernel.
    ASSERT_EQ(box.attach(red, redMnt, kPassword + "red").exitCode, 0);
    box.setLayer("");
    CommandResult r = box.qvImage(
        {"-layer", "kernel", "attach", blue, "-mountpoint", blueMnt, "-noverify", "-noautofsck", "-stdinpass"},
        kPassword + "blue");
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_EQ(mountAt(blueMnt).value_or(MountEntry{}).fsType, "ext4") << "-layer kernel mounts the kernel's ext4";
    writeFileSynced(redMnt + "/data", patternBytes(1, 5 << 20));
    writeFileSynced(blueMnt + "/data", patternBytes(2, 5 << 20));

    // Taking one away leaves the other as it was; it comes back elsewhere with its own contents.
    ASSERT_EQ(box.detach(redMnt).exitCode, 0);
    EXPECT_TRUE(readFile(blueMnt + "/data") == patternBytes(2, 5 << 20));
    redMnt = box.makeDir("red-again");
    box.setLayer("fuse2fs");
    ASSERT_EQ(box.attach(red, redMnt, kPassword + "red").exitCode, 0);
    EXPECT_TRUE(readFile(redMnt + "/data") == patternBytes(1, 5 << 20));
    EXPECT_EQ(listDirectory(blueMnt), (std::vector<std::string>{".hidden", "data", "lost+found"}));
    EXPECT_TRUE(box.detach(redMnt).exitCode == 0 && box.detach(blueMnt).exitCode == 0);
}

TEST(ImageUsers, AnOrdinaryUserRunsTheWholeCycle) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create the test user and switch to it";
    const std::string user = "qvimgtest";
    if (!::getpwnam(user.c_str())) runCommand({"useradd", "-m", "-s", "/bin/sh", user});
    const passwd* pw = ::getpwnam(user.c_str());
    ASSERT_TRUE(pw) << "could not create the test user";
    const uid_t uid = pw->pw_uid, gid = pw->pw_gid;
    ASSERT_EQ(::chmod("/dev/fuse", 0666), 0) << "desktop systems leave /dev/fuse open to everyone";

    ImageSandbox box;
    ASSERT_EQ(::chmod(box.root().c_str(), 0755), 0);
    const std::string home = box.makeDir("user"), runtime = box.makeDir("user/run");
    for (const auto& p : {home, runtime}) ASSERT_EQ(::chown(p.c_str(), uid, gid), 0);
    ASSERT_EQ(::chmod(runtime.c_str(), 0700), 0);
    // The volume is the user's alone: even root reads it only as the user.
    auto asUser = [&](std::vector<std::string> argv, const std::optional<std::string>& input = {}) {
        argv.insert(argv.begin(), {"runuser", "-u", user, "--", "env", "XDG_RUNTIME_DIR=" + runtime,
                                   "QV_IMAGE_LAYER=fuse2fs"});
        CommandResult r = runCommand(argv, {input, {}, "/"});
        EXPECT_FALSE(r.pipesHeldOpen) << argv[7];
        return r;
    };
    const std::string image = home + "/mine.sparsebundle", mnt = home + "/Private", bin = qvImageBinary();

    CommandResult r = asUser({bin, "create", "-encryption", "AES-256", "-stdinpass", "-size", "64m", "-type",
                              "SPARSEBUNDLE", "-volname", "Private", "-fs", "HFS+J", "-ov", image},
                             kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    struct stat st {};
    ASSERT_EQ(::stat(image.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, uid) << "the image belongs to whoever made it";
    ASSERT_EQ(asUser({"mkdir", mnt}).exitCode, 0);

    r = asUser({bin, "attach", image, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass"}, kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_TRUE(isMountPoint(mnt));
    for (pid_t p : processesUsing(home))
        EXPECT_EQ(ownerOfProcess(p), uid) << processName(p) << " serves the image as another user";
    const std::string data = patternBytes(4242, 3 << 20);
    r = asUser({"sh", "-c", "cat > \"$1\" && sync \"$1\"", "sh", mnt + "/notes.bin"}, data);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    r = asUser({bin, "detach", mnt});
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));

    r = asUser({bin, "attach", image, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass"}, kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    r = asUser({"cat", mnt + "/notes.bin"});
    EXPECT_TRUE(r.exitCode == 0 && r.out == data) << "read back " << r.out.size() << " bytes";
    EXPECT_EQ(asUser({bin, "detach", mnt}).exitCode, 0);
}

} // namespace

// Images side by side, and an ordinary user running the whole cycle
// without any privilege.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "users-test-password";

std::vector<std::string> userEntries(const std::string& mountPoint) {
    std::vector<std::string> names;
    for (const auto& n : listDirectory(mountPoint))
        if (n != "lost+found" && n != ".hidden") names.push_back(n);
    return names;
}

uid_t ownerOfProcess(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("Uid:", 0) == 0) return uid_t(std::stoul(line.substr(4)));
    return uid_t(-1);
}

TEST(ImageUsers, SeveralImagesAttachedAtOnceKeepTheirOwnContents) {
    if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
    ImageSandbox box;
    const std::vector<std::string> names = {"red", "green", "blue"};
    std::map<std::string, std::string> images, mounts;
    for (const auto& n : names) {
        images[n] = box.createOrFail(n + ".sparsebundle", kPassword + n, 64);
        mounts[n] = box.makeDir("folders/" + n);
    }
    ASSERT_FALSE(HasFailure());

    // Two through the environment's layer, one through the leading option for the kernel.
    ASSERT_EQ(box.attach(images["red"], mounts["red"], kPassword + "red").exitCode, 0);
    ASSERT_EQ(box.attach(images["green"], mounts["green"], kPassword + "green", true).exitCode, 0);
    box.setLayer("");
    CommandResult r = box.qvImage({"-layer", "kernel", "attach", images["blue"], "-mountpoint", mounts["blue"],
                                   "-noverify", "-noautofsck", "-stdinpass"},
                                  kPassword + "blue");
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    auto blue = mountAt(mounts["blue"]);
    ASSERT_TRUE(blue);
    EXPECT_EQ(blue->fsType, "ext4") << "-layer kernel should mount with the kernel's ext4";

    for (const auto& n : names) {
        writeFileSynced(mounts[n] + "/id", n);
        writeFileSynced(mounts[n] + "/data", patternBytes(n.size() * 1000 + n[0], 5 << 20));
    }
    auto expectOwn = [&](const std::string& n) {
        EXPECT_EQ(userEntries(mounts[n]), (std::vector<std::string>{"data", "id"})) << n;
        EXPECT_EQ(readFile(mounts[n] + "/id"), n);
        EXPECT_EQ(readFile(mounts[n] + "/data"), patternBytes(n.size() * 1000 + n[0], 5 << 20)) << n;
    };
    for (const auto& n : names) expectOwn(n);

    // Taking one away leaves the others as they were; it comes back elsewhere.
    ASSERT_EQ(box.detach(mounts["green"]).exitCode, 0);
    EXPECT_FALSE(isMountPoint(mounts["green"]));
    expectOwn("red");
    expectOwn("blue");
    mounts["green"] = box.makeDir("folders/green-again");
    ASSERT_EQ(box.attach(images["green"], mounts["green"], kPassword + "green").exitCode, 0);
    expectOwn("green");

    for (const auto& n : names) {
        r = box.detach(mounts[n]);
        EXPECT_EQ(r.exitCode, 0) << n << ": " << r.describe();
        EXPECT_FALSE(isMountPoint(mounts[n])) << n;
    }
}

TEST(ImageUsers, AnOrdinaryUserRunsTheWholeCycle) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to create the test user and switch to it";
    std::string why;
    auto user = ensureTestUser(&why);
    ASSERT_TRUE(user) << why;
    uid_t uid;
    gid_t gid;
    ASSERT_TRUE(userIdsFor(*user, &uid, &gid));
    // Desktop systems leave /dev/fuse open to everyone.
    ASSERT_EQ(::chmod("/dev/fuse", 0666), 0);

    ImageSandbox box;
    ASSERT_EQ(::chmod(box.root().c_str(), 0755), 0);
    const std::string home = box.makeDir("user");
    const std::string runtime = home + "/run";
    ASSERT_TRUE(fs::create_directory(runtime));
    ASSERT_EQ(::chmod(runtime.c_str(), 0700), 0);
    for (const auto& p : {home, runtime}) ASSERT_EQ(::chown(p.c_str(), uid, gid), 0);

    auto asUser = [&](std::vector<std::string> argv, const std::optional<std::string>& input = {}) {
        std::vector<std::string> full{"runuser", "-u", *user, "--", "env", "XDG_RUNTIME_DIR=" + runtime,
                                      "QV_IMAGE_LAYER=fuse2fs"};
        full.insert(full.end(), argv.begin(), argv.end());
        CommandOptions o;
        o.input = input;
        o.cwd = "/";
        CommandResult r = runCommand(full, o);
        EXPECT_FALSE(r.pipesHeldOpen) << argv[0];
        return r;
    };
    const std::string image = home + "/mine.sparsebundle";
    const std::string mnt = home + "/Private";
    const std::string bin = qvImageBinary();

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
        EXPECT_EQ(ownerOfProcess(p), uid) << "process " << p << " (" << processName(p) << ") serves the image as another user";

    r = asUser({"stat", "-c", "%u %g", mnt});
    EXPECT_EQ(r.out, std::to_string(uid) + " " + std::to_string(gid) + "\n") << "the volume root belongs to the user";

    const std::string data = patternBytes(4242, 3 << 20);
    r = asUser({"sh", "-c", "cat > \"$1\" && sync \"$1\"", "sh", mnt + "/notes.bin"}, data);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    r = asUser({"cat", mnt + "/notes.bin"});
    EXPECT_TRUE(r.exitCode == 0 && r.out == data) << "read back " << r.out.size() << " bytes";

    r = asUser({bin, "detach", mnt});
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
    EXPECT_TRUE(listDirectory(mnt).empty());

    r = asUser({bin, "attach", image, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass", "-nobrowse"},
               kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    r = asUser({"sha256sum", mnt + "/notes.bin"});
    EXPECT_EQ(r.out.substr(0, 64), sha256Hex(data));
    r = asUser({bin, "detach", mnt});
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
}

} // namespace

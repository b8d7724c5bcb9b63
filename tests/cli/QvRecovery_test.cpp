// What a user finds after the processes behind an unlocked folder died (a
// crash, an out-of-memory kill): `qv status` calls the folder damaged, and
// `qv unlock` takes the dead volume away and mounts the image again, every
// file there as last written. Nor is anything ever mounted over files that
// reached a locked folder.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/CliSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The process that serves the disk of the volume on `mountpoint`: the one
// qv-image left running by its attach.
pid_t devicePidOf(const std::string& mountpoint) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string cmdline = contents(entry.path().string() + "/cmdline");
        std::vector<std::string> argv;
        for (size_t at = 0; at < cmdline.size();) {
            const size_t end = cmdline.find('\0', at);
            argv.push_back(cmdline.substr(at, end - at));
            at = end == std::string::npos ? cmdline.size() : end + 1;
        }
        if (argv.size() > 1 && argv[0].ends_with("/qv-image") && argv[1] == "attach" &&
            std::find(argv.begin(), argv.end(), mountpoint) != argv.end())
            return pid_t(std::stol(name));
    }
    return -1;
}

} // namespace

TEST(QvRecovery, UnlockingADamagedFolderRepairsIt) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "damaged", "damaged set");
    const std::string folder = user.home + "/Notes";
    fs::create_directories(folder);
    std::ofstream(folder + "/kept.txt") << "kept";
    ASSERT_EQ(user.qv({"set", "create"}).exitCode, 0);
    auto r = user.qv({"encrypt", folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    ASSERT_EQ(user.qv({"unlock", folder}).exitCode, 0);
    std::ofstream(folder + "/written.txt") << "written while unlocked";
    ASSERT_EQ(user.qv({"lock", folder}).exitCode, 0);
    ASSERT_EQ(user.qv({"unlock", folder}).exitCode, 0);

    // The process serving the disk dies; the volume stays mounted on a dead disk.
    const pid_t device = devicePidOf(folder);
    ASSERT_GT(device, 0);
    ASSERT_EQ(::kill(device, SIGKILL), 0);
    for (int i = 0; i < 100 && ::kill(device, 0) == 0; ++i) ::usleep(20000);

    EXPECT_EQ(stateOf(user.qv({"status"}).out, folder), "damaged");
    r = user.qv({"unlock", folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "unlocked\t" + folder + "\n");
    EXPECT_EQ(contents(folder + "/kept.txt"), "kept");
    EXPECT_EQ(contents(folder + "/written.txt"), "written while unlocked");
    EXPECT_EQ(stateOf(user.qv({"status"}).out, folder), "unlocked");

    // Every process behind the volume dies ("Transport endpoint is not
    // connected"); such a volume also locks.
    ASSERT_GT(sandbox.killImageProcesses(), 0u);
    EXPECT_EQ(stateOf(user.qv({"status"}).out, folder), "damaged");
    r = user.qv({"lock", folder});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(stateOf(user.qv({"status"}).out, folder), "locked");
    EXPECT_TRUE(fs::is_directory(folder) && fs::is_empty(folder));

    // Files that reached the locked folder anyway are never hidden under the volume.
    std::ofstream(folder + "/stray.txt") << "stray";
    r = user.qv({"unlock", folder});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "locked\t" + folder + "\n");
    EXPECT_NE(r.err.find("'Notes' holds files although it is locked"), std::string::npos) << r.err;
    EXPECT_EQ(contents(folder + "/stray.txt"), "stray");
    fs::remove(folder + "/stray.txt");
    r = user.qv({"unlock", folder});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(contents(folder + "/kept.txt"), "kept");
    EXPECT_EQ(user.qv({"lock", folder}).exitCode, 0);
}

// A crash in the middle of a task leaves its temporary mount point in Temp,
// still mounted on a volume that died with it; the next start of qv takes it
// away, with empty directories left long ago, and leaves a directory that a
// running task may just have made.
TEST(QvRecovery, TheNextStartCleansWhatDeadProcessesLeftInTemp) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "leftovers", "leftover set");
    ASSERT_EQ(user.qv({"set", "create"}).exitCode, 0);
    const std::string temp = user.data() + "/Data/Temp";
    fs::create_directories(temp + "/old empty");
    fs::create_directories(temp + "/fresh empty");
    const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(temp + "/old empty", longAgo);
    const std::string image = sandbox.createOrFail("left.sparsebundle", "image secret", 32);
    const std::string mnt = temp + "/AbCdEfGhIj";
    fs::create_directories(mnt);
    ASSERT_EQ(sandbox.attach(image, mnt, "image secret").exitCode, 0);
    ASSERT_GT(sandbox.killImageProcesses(), 0u);

    ASSERT_EQ(user.qv({"set", "check"}).exitCode, 0);
    bool mounted = false;
    for (const auto& m : mountTable()) mounted = mounted || m.mountPoint == mnt;
    EXPECT_FALSE(mounted) << "the dead volume is taken away";
    EXPECT_FALSE(fs::exists(fs::symlink_status(mnt))) << "with its mount point";
    EXPECT_FALSE(fs::exists(temp + "/old empty"));
    EXPECT_TRUE(fs::is_directory(temp + "/fresh empty")) << "a running task may have just made it";
}

namespace {

// Whether a process of the unprivileged user "nobody" can create a file in `dir`.
bool nobodyCanWriteInto(const std::string& dir) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
        const int fd = ::open((dir + "/planted.txt").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        ::_exit(fd >= 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

} // namespace

// A locked folder is read-only for everyone, so nothing saves plaintext into
// it; its own mode comes back for each mount and goes again after each lock.
TEST(QvRecovery, ALockedFolderTakesNoFiles) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to write as another user";
    ImageSandbox sandbox;
    QvUser user(sandbox, "readonly", "read-only set");
    const std::string folder = user.home + "/Shared";
    fs::create_directories(folder);
    std::ofstream(folder + "/inside.txt") << "inside";
    // The sandbox's own directories let the other user through.
    for (fs::path p = user.home; p.string().rfind(sandbox.root(), 0) == 0; p = p.parent_path())
        ::chmod(p.c_str(), 0755);
    ::chmod(folder.c_str(), 0777);
    ASSERT_TRUE(nobodyCanWriteInto(folder)) << "anyone may write into the folder as it was";
    fs::remove(folder + "/planted.txt");
    ASSERT_EQ(user.qv({"set", "create"}).exitCode, 0);
    auto r = user.qv({"encrypt", folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    EXPECT_EQ(modeOf(folder), 0555u);
    EXPECT_FALSE(nobodyCanWriteInto(folder)) << "nobody writes into a locked folder";
    ASSERT_EQ(user.qv({"unlock", folder}).exitCode, 0);
    EXPECT_EQ(contents(folder + "/inside.txt"), "inside");
    ASSERT_EQ(user.qv({"lock", folder}).exitCode, 0);
    EXPECT_EQ(modeOf(folder), 0555u) << "read-only again after the lock";
    EXPECT_TRUE(fs::is_empty(folder));
}

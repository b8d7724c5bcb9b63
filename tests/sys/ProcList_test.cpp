// The process table and its lookups, checked against children of this test that
// run `sleep` under names of our choosing (a symbolic link named as we like).
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/TempHome.h"
#include "sys/ProcList.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// The state letter of /proc/<pid>/stat, or '?'.
char readState(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = s.rfind(')');
    return close == std::string::npos || close + 2 >= s.size() ? '?' : s[close + 2];
}

// Children named after links to `sleep` in a private directory; whatever is
// still running at the end is killed and reaped, also after a failed assertion.
class Sleepers {
public:
    Sleepers() : dir_(qv::test::makeTempDir("qvproc")) {}
    ~Sleepers() {
        for (pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        fs::remove_all(dir_);
    }

    // Starts `sleep <seconds>` as a program called `name`; waits until the exec is done.
    pid_t start(const std::string& name, const char* seconds = "60") {
        const std::string link = dir_ + "/" + name;
        if (!fs::exists(fs::symlink_status(link))) fs::create_symlink("/bin/sleep", link);
        char* argv[] = {const_cast<char*>(link.c_str()), const_cast<char*>(seconds), nullptr};
        pid_t pid = -1;
        if (::posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv, environ) != 0) return -1;
        pids_.push_back(pid);
        for (int i = 0; i < 500; ++i) {
            std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
            std::string comm;
            if (std::getline(in, comm) && comm == name.substr(0, qv::QVCommandNameLength)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return pid;
    }

    // Reaps `pid` and tells how it ended: the signal that killed it, 0 for a plain exit.
    int reap(pid_t pid) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        std::erase(pids_, pid);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

private:
    std::string dir_;
    std::vector<pid_t> pids_;
};

// A name of more than 15 bytes, unique to this test process.
std::string uniqueName(const char* tag) {
    return std::string("qv") + tag + std::to_string(::getpid()) + "-sleeper-long-name";
}

TEST(ProcList, LookupsByNameCutToFifteenBytes) {
    Sleepers kids;
    const std::string name = uniqueName("n");
    pid_t first = kids.start(name);
    pid_t second = kids.start(name);
    ASSERT_TRUE(first > 0 && second > 0);

    // Whole-name equality on the first 15 bytes: a longer name with another tail matches.
    EXPECT_EQ(qv::pidForApp(name.substr(0, 15) + "anything-else", true), first);
    EXPECT_EQ(qv::pidForApp(name.substr(0, 10), false), -1) << "pidForApp wants the whole name";
    auto infos = qv::infoForAppsWithName(name.substr(2, 8));
    ASSERT_EQ(infos.size(), 2u) << "substring matches: every live process, in table order";
    EXPECT_EQ(infos[0].pid, first);
    EXPECT_EQ(infos[1].pid, second);
    EXPECT_TRUE(qv::infoForAppsWithName("").empty()) << "an empty name must select nothing";

    EXPECT_FALSE(qv::pidIsApp(999999999, {""}, nullptr)) << "a missing pid is no app";
    EXPECT_EQ(qv::appForPid(first).value_or("<none>"), name) << "the full name the kernel cut";
}

TEST(ProcList, ZombiesAreSkippedOrLeaveOutputsUnwritten) {
    Sleepers kids;
    const std::string name = uniqueName("z");
    pid_t zombie = kids.start(name, "0");
    ASSERT_GT(zombie, 0);
    for (int i = 0; i < 500 && readState(zombie) != 'Z'; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(readState(zombie), 'Z');

    EXPECT_TRUE(qv::infoForAppsWithName(name).empty());
    EXPECT_EQ(qv::pidForApp(name, false), -1);
    pid_t pid = 77;
    EXPECT_EQ(qv::infoForApp(name, &pid, nullptr), 0) << "a zombie is found";
    EXPECT_EQ(pid, 77) << "but its pid is not handed out";
    EXPECT_FALSE(qv::killProcsNamed(name, 0)) << "nothing live to stop";
}

TEST(ProcList, KillHelpersStopOnlyWhatMatches) {
    Sleepers kids;
    const std::string name = uniqueName("k");
    const std::string other = uniqueName("o");
    pid_t a = kids.start(name);
    pid_t b = kids.start(name);
    pid_t bystander = kids.start(other);
    ASSERT_TRUE(a > 0 && b > 0 && bystander > 0);

    // With a delay, SIGTERM comes first, and `sleep` ends by it.
    EXPECT_EQ(qv::killOurProcNamed(name, 50000), a);
    EXPECT_EQ(kids.reap(a), SIGTERM);
    // signalProc sends the given signal to the first match only.
    EXPECT_EQ(qv::signalProc(SIGUSR1, name, true), b);
    EXPECT_EQ(kids.reap(b), SIGUSR1);

    pid_t c = kids.start(name);
    pid_t d = kids.start(name);
    // Without a delay: straight to SIGKILL, for every match.
    EXPECT_TRUE(qv::killProcsNamed(name, 0));
    EXPECT_EQ(kids.reap(c), SIGKILL);
    EXPECT_EQ(kids.reap(d), SIGKILL);
    EXPECT_FALSE(qv::killProcsNamed("", 0));
    EXPECT_EQ(readState(bystander), 'S') << "a process of another name must be left alone";
}

} // namespace

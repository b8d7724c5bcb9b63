// The upgrade from qv, on real images and at the production scrypt cost: the
// first set of a new database brings the fake sets and images with it; a
// database that still needs the upgrade is refused by every other command;
// Ctrl-C and a kill leave the master file as it was, and what a killed run
// made is gone after the next start.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "cli/CliSupport.h"
#include "vault/DBMaster.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

struct Upgrader : QvUser {
    Upgrader(const ImageSandbox& sandbox, const std::string& name) : QvUser(sandbox, name, "real set", true) {}

    std::string database() const { return data() + "/database3"; }
    std::string note() const { return data() + "/fdinote"; }
    std::vector<std::string> images() const {
        auto names = listDirectory(data() + "/Data");
        std::erase_if(names, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        return names;
    }
    size_t sets() const {
        auto master = DBMaster::initWithMasterDBURL(database(), false, nullptr);
        return master ? master->subDBCount() : 0;
    }
    std::string bytes(const std::string& path) const {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // qv <args> in the background, the set password on its input, its standard
    // error into `errFile`.
    pid_t start(const std::vector<std::string>& args, const std::string& errFile) const {
        int in[2];
        if (::pipe(in) != 0) return -1;
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::setpgid(0, 0);
            const int null = ::open("/dev/null", O_WRONLY);
            const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(in[0], 0);
            ::dup2(null, 1);
            ::dup2(err, 2);
            ::close(in[1]);
            for (const auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
            std::vector<char*> argv{const_cast<char*>("qv")};
            for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            ::execv(binary().c_str(), argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        const std::string line = password + "\n";
        (void)!::write(in[1], line.data(), line.size());
        ::close(in[1]);
        return pid;
    }
};

bool waitFor(const std::function<bool()>& done, int seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return done();
}

// The exit status of a child, or -signal.
int reap(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

TEST(QvUpgrade, TheFirstSetBringsFakeSetsAndImagesAndNoSpaceNeedsAYes) {
    ImageSandbox sandbox;
    Upgrader user(sandbox, "create");
    auto r = user.qv({"set", "create", "--fake-space", "0"});
    EXPECT_EQ(r.exitCode, 4) << "no terminal to answer \"Are you sure?\": " << r.err;
    EXPECT_FALSE(fs::exists(user.database())) << "refused before anything was written";
    EXPECT_EQ(user.qv({"set", "create", "--fake-space", "lots"}).exitCode, 2);
    EXPECT_EQ(user.qv({"set", "create", "--fake-plan", "medium"}).exitCode, 2);

    r = user.qv({"set", "create", "--fake-space", "300M", "--fake-plan", "small"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(r.out.starts_with("Approximately 314.6 MB will be used to create ")) << r.out;
    EXPECT_NE(r.err.find("Filling database with fake Folder Sets..."), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Database upgrade complete!"), std::string::npos) << r.err;
    const size_t planned = std::stoul(r.out.substr(r.out.find("create ") + 7));
    EXPECT_EQ(user.images().size(), planned);
    EXPECT_GE(user.sets(), 5u);
    EXPECT_LE(user.sets(), 15u);
    EXPECT_FALSE(fs::exists(user.note()));
    EXPECT_EQ(listDirectory(user.data() + "/Data"), user.images()) << "no temporary mount points left";
    EXPECT_EQ(user.qv({"set", "check"}).exitCode, 0);
    EXPECT_EQ(user.qv({"folders"}).out, "");
    r = user.qv({"upgrade"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_NE(r.err.find("needs no upgrade"), std::string::npos);
}

TEST(QvUpgrade, CtrlCAndAKillLeaveTheOldFileAndTheNextStartCleansUp) {
    ImageSandbox sandbox;
    Upgrader user(sandbox, "interrupted");
    const std::string errFile = sandbox.path("interrupted/err");

    // Ctrl-C while the fake sets are made: the set made first stays, nothing else.
    pid_t qv = user.start({"set", "create", "--fake-space", "400M"}, errFile);
    ASSERT_TRUE(waitFor([&] { return user.bytes(errFile).find("Filling database") != std::string::npos; }, 120));
    ::kill(qv, SIGINT);
    EXPECT_EQ(reap(qv), 1) << user.bytes(errFile);
    EXPECT_NE(user.bytes(errFile).find("qv upgrade"), std::string::npos) << user.bytes(errFile);
    EXPECT_EQ(user.sets(), 1u);
    EXPECT_TRUE(user.images().empty());
    EXPECT_FALSE(fs::exists(user.note()));

    // Until it is upgraded, the database is refused, naming the way out.
    auto r = user.qv({"folders"});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("qv upgrade"), std::string::npos) << r.err;
    EXPECT_EQ(user.qv({"set", "create"}, "another\n").exitCode, 4);

    // A kill while the images are filled: the old file, and the images in the note.
    const std::string before = user.bytes(user.database());
    qv = user.start({"upgrade", "--fake-space", "2G", "--fake-plan", "large"}, errFile);
    // Killed as soon as the first image stands: on a fast machine the whole
    // upgrade may take only a few seconds more.
    ASSERT_TRUE(waitFor([&] { return !user.images().empty() && fs::exists(user.note()); }, 300)) << user.bytes(errFile);
    ::kill(-qv, SIGKILL);
    EXPECT_EQ(reap(qv), -SIGKILL);
    EXPECT_EQ(user.bytes(user.database()), before) << "the master file is written only at the end";
    EXPECT_TRUE(fs::exists(user.note()));

    // The next start (any command) deletes them, and the upgrade then runs whole.
    r = user.qv({"folders"});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_TRUE(user.images().empty()) << "left by the killed run";
    EXPECT_FALSE(fs::exists(user.note()));
    r = user.qv({"upgrade", "--fake-space", "100M"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(user.images().size(), 1u);
    EXPECT_GE(user.sets(), 5u);
    EXPECT_EQ(user.qv({"folders"}).exitCode, 0);
}

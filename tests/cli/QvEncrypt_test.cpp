// qv encrypt as a user runs it, and what a crash in the middle of it leaves:
// the user's files are whole in one place whenever the process dies, either
// the original folder untouched or the Trash with a complete image beside it.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "disk/TreeCompare.h"
#include "image/ImageTestSupport.h"
#include "support/RunProcess.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

constexpr const char* kSetPassword = "crash test set";

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

// A tree with the kinds of entries a user's folder holds, and enough data that
// the copy into the image takes a while.
void makeTree(const std::string& root) {
    fs::create_directories(root + "/sub dir/deeper");
    fs::create_directories(root + "/empty");
    writeBytes(root + "/plain.txt", "plain");
    writeBytes(root + "/with\nnewline", "nl");
    writeBytes(root + "/latin1-\xe9\xff", "not utf-8");
    for (int i = 0; i < 6; ++i) writeBytes(root + "/sub dir/big" + std::to_string(i), patternBytes(i, 6 << 20));
    fs::create_hard_link(root + "/plain.txt", root + "/sub dir/hard link");
    fs::create_symlink("../plain.txt", root + "/sub dir/relative link");
    fs::create_symlink("/nowhere/at/all", root + "/dangling");
    ::setxattr((root + "/plain.txt").c_str(), "user.colour", "teal", 4, 0);
    fs::permissions(root + "/sub dir/deeper", fs::perms::owner_all);
}

class QvEncrypt : public ::testing::Test {
protected:
    // One user's world under the sandbox: home, data, Trash, runtime directory.
    struct World {
        std::string home, folder;
        std::map<std::string, std::string> env;
        std::string data() const { return home + "/.local/share/com.marrowfen.Quillvane3"; }
        std::string trashed() const { return home + "/.local/share/Trash/files/" + fs::path(folder).filename().string(); }
    };
    World makeWorld(const std::string& name) {
        World w;
        w.home = sandbox.makeDir(name + "/home");
        w.folder = w.home + "/My Files";
        w.env = {{"HOME", w.home},
                 {"XDG_DATA_HOME", w.home + "/.local/share"},
                 {"XDG_CONFIG_HOME", w.home + "/.config"},
                 {"XDG_RUNTIME_DIR", sandbox.runtimeDir()},
                 {"QV_IMAGE_LAYER", "fuse2fs"}};
        makeTree(w.folder);
        auto r = qv(w, {"set", "create"});
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return w;
    }
    ProcessResult qv(const World& w, const std::vector<std::string>& args) {
        std::vector<std::string> argv{std::string(QV_BINARY_DIR) + "/src/qv"};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProcess(argv, std::string(kSetPassword) + "\n", w.env);
    }
    // Starts `qv encrypt`, waits until its progress on standard error shows
    // `stage`, then sends it SIGINT every 200 ms while it runs (a user pressing
    // Ctrl-C until something happens); returns its exit status.
    int encryptAndInterruptAt(const World& w, const std::string& stage) {
        int in[2], err[2];
        if (::pipe(in) != 0 || ::pipe(err) != 0) return -1000;
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(in[0], 0);
            ::dup2(err[1], 2);
            ::close(in[1]);
            ::close(err[0]);
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, 1);
            for (const auto& [k, v] : w.env) ::setenv(k.c_str(), v.c_str(), 1);
            const std::string qvPath = std::string(QV_BINARY_DIR) + "/src/qv";
            ::execl(qvPath.c_str(), "qv", "encrypt", w.folder.c_str(), (char*)nullptr);
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(err[1]);
        const std::string line = std::string(kSetPassword) + "\n";
        EXPECT_EQ(::write(in[1], line.data(), line.size()), ssize_t(line.size()));
        ::close(in[1]);
        std::string seen;
        char buf[4096];
        for (ssize_t n; seen.find(stage) == std::string::npos && (n = ::read(err[0], buf, sizeof buf)) > 0;)
            seen.append(buf, size_t(n));
        EXPECT_NE(seen.find(stage), std::string::npos) << seen;
        int status = 0;
        for (;;) {
            ::kill(pid, SIGINT);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            while (::read(err[0], buf, 0) > 0) {
            }
            if (::waitpid(pid, &status, WNOHANG) == pid) break;
        }
        ::close(err[0]);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    // Starts `qv encrypt` and kills it (SIGKILL) after `ms` milliseconds.
    void encryptAndKill(const World& w, int ms) {
        int in[2];
        ASSERT_EQ(::pipe(in), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(in[0], 0);
            ::close(in[1]);
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, 1);
            ::dup2(null, 2);
            for (const auto& [k, v] : w.env) ::setenv(k.c_str(), v.c_str(), 1);
            const std::string qvPath = std::string(QV_BINARY_DIR) + "/src/qv";
            ::execl(qvPath.c_str(), "qv", "encrypt", w.folder.c_str(), (char*)nullptr);
            ::_exit(127);
        }
        ::close(in[0]);
        const std::string line = std::string(kSetPassword) + "\n";
        ASSERT_EQ(::write(in[1], line.data(), line.size()), ssize_t(line.size()));
        ::close(in[1]);
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        // What the dead process left running (image daemons) dies as with a crash of the machine.
        sandbox.killImageProcesses();
        for (const auto& m : mountTable())
            if (m.mountPoint.rfind(sandbox.root() + "/", 0) == 0) lazyUnmount(m.mountPoint);
    }
    // The images in the world's storage.
    std::vector<std::string> images(const World& w) {
        std::vector<std::string> found;
        for (const std::string dir : {w.data() + "/Data"})
            if (fs::is_directory(dir))
                for (const auto& e : fs::directory_iterator(dir))
                    if (e.path().extension() == ".sparsebundle") found.push_back(e.path().string());
        return found;
    }
    // Opens the world's image of the folder with the password kept in its Folder
    // Set, and compares it with `reference`.
    std::vector<std::string> imageDifferences(const World& w, const std::string& reference) {
        for (const auto& [k, v] : w.env) ::setenv(k.c_str(), v.c_str(), 1);
        QVError error;
        auto master = DBMaster::initWithMasterDBURL(w.data() + "/database3", false, &error);
        if (!master) return {"no database: " + error.description};
        auto subdb = master->getSubDBWithPassword(kSetPassword, &error);
        if (!subdb) return {"no set"};
        QVRecordRef folder = subdb->folderForMountpath(w.folder);
        if (!folder) return {"no folder record"};
        auto password = QVCrypto::decryptWithString(FolderRef{folder}.password().toData(), kSetPassword);
        const std::string image = DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
        if (!password) return {"image password doesn't decrypt"};
        const std::string mnt = sandbox.makeDir("check-" + std::to_string(++checks));
        auto r = sandbox.attach(image, mnt, std::string(password->begin(), password->end()));
        if (r.exitCode != 0) return {"image doesn't attach: " + r.describe()};
        std::vector<std::string> diffs;
        for (const auto& d : compareTrees(reference, mnt, {.wholeSeconds = true}))
            if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
        sandbox.detach(mnt);
        return diffs;
    }

    ImageSandbox sandbox;
    int checks = 0;
};

} // namespace

TEST_F(QvEncrypt, ProtectsAFolderAndRefusesWhatItMustNot) {
    World w = makeWorld("plain");
    const std::string reference = sandbox.path("plain/reference");
    ASSERT_EQ(runProcess({"/bin/cp", "-a", w.folder, reference}, "").exitCode, 0);

    auto r = qv(w, {"encrypt", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "encrypted\t" + w.folder + "\n");
    EXPECT_TRUE(fs::is_directory(w.folder) && fs::is_empty(w.folder)) << "an empty mount point stays";
    EXPECT_EQ(compareTrees(reference, w.trashed()), std::vector<std::string>{}) << "the original, whole, in the Trash";
    EXPECT_EQ(images(w).size(), 1u);
    EXPECT_EQ(imageDifferences(w, reference), std::vector<std::string>{});

    r = qv(w, {"status"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("locked\t", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\t-\t" + w.folder + "\n"), std::string::npos) << r.out;

    // The everyday cycle: unlocked, the folder's path shows the files; locked, nothing.
    r = qv(w, {"unlock", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "unlocked\t" + w.folder + "\n");
    std::vector<std::string> diffs;
    for (const auto& d : compareTrees(reference, w.folder, {.wholeSeconds = true}))
        if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
    EXPECT_EQ(diffs, std::vector<std::string>{}) << "every file as it was";
    writeBytes(w.folder + "/written while unlocked", "new");
    EXPECT_EQ(qv(w, {"status"}).out.rfind("unlocked\t", 0), 0u);
    r = qv(w, {"lock", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "locked\t" + w.folder + "\n");
    EXPECT_TRUE(fs::is_directory(w.folder) && fs::is_empty(w.folder)) << "the path is empty again";
    EXPECT_EQ(qv(w, {"lock", w.folder}).exitCode, 0) << "locked already counts as done";
    ASSERT_EQ(qv(w, {"unlock", w.folder}).exitCode, 0);
    EXPECT_EQ(readFile(w.folder + "/written while unlocked"), "new");
    ASSERT_EQ(qv(w, {"lock", w.folder}).exitCode, 0);
    EXPECT_EQ(qv(w, {"unlock", w.home + "/elsewhere"}).exitCode, 4) << "not a folder of the set";

    // Refusals: exit 4 with the reason.
    r = qv(w, {"encrypt", w.folder});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("is already encrypted"), std::string::npos) << r.err;
    r = qv(w, {"encrypt", w.home + "/.local/share/com.marrowfen.Quillvane3"});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("contains Quillvane's data"), std::string::npos) << r.err;
    writeBytes(w.home + "/a file", "x");
    EXPECT_EQ(qv(w, {"encrypt", w.home + "/a file"}).exitCode, 4);
    EXPECT_EQ(qv(w, {"encrypt"}).exitCode, 2);
}

TEST_F(QvEncrypt, AKilledEncryptionNeverLosesOrHalvesTheFiles) {
    // How long a whole encryption takes here sets the moments to kill at.
    World timing = makeWorld("timing");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(qv(timing, {"encrypt", timing.folder}).exitCode, 0);
    const int total = int(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                                  start)
                              .count());

    for (double at : {0.15, 0.3, 0.45, 0.6, 0.7, 0.8, 0.9, 0.97}) {
        const std::string name = "kill-" + std::to_string(int(at * 100));
        SCOPED_TRACE(name + " at " + std::to_string(int(at * total)) + " ms of " + std::to_string(total));
        World w = makeWorld(name);
        const std::string reference = sandbox.path(name + "/reference");
        ASSERT_EQ(runProcess({"/bin/cp", "-a", w.folder, reference}, "").exitCode, 0);
        encryptAndKill(w, int(at * total));

        const bool atPath = fs::is_directory(w.folder) && !fs::is_empty(w.folder);
        const bool inTrash = fs::exists(w.trashed());
        ASSERT_NE(atPath, inTrash) << "the files are in exactly one place";
        if (atPath) {
            EXPECT_EQ(compareTrees(reference, w.folder), std::vector<std::string>{}) << "the original, untouched";
        } else {
            EXPECT_EQ(compareTrees(reference, w.trashed()), std::vector<std::string>{}) << "the original, whole";
            EXPECT_EQ(imageDifferences(w, reference), std::vector<std::string>{}) << "and a complete image";
        }
    }
}

TEST_F(QvEncrypt, CtrlCCancelsTheCopyAndLeavesTheFolderAsItWas) {
    World w = makeWorld("interrupted");
    const std::string reference = sandbox.path("interrupted/reference");
    ASSERT_EQ(runProcess({"/bin/cp", "-a", w.folder, reference}, "").exitCode, 0);
    EXPECT_EQ(encryptAndInterruptAt(w, "Creating disk image"), 1) << "a cancelled encryption is a failure";
    EXPECT_EQ(compareTrees(reference, w.folder), std::vector<std::string>{}) << "untouched";
    EXPECT_FALSE(fs::exists(w.trashed()));
    EXPECT_EQ(images(w), std::vector<std::string>{}) << "no image left behind";
    auto r = qv(w, {"folders"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "") << "no record left in the set";
}

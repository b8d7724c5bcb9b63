// qv encrypt as a user runs it, and what a crash in the middle of it leaves:
// the user's files are whole in one place whenever the process dies, either
// the original folder untouched or the Trash with a complete image beside it.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "cli/CliSupport.h"
#include "disk/DiskMasterSupport.h"
#include "disk/TreeCompare.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

void writeBytes(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// A user with a set and a folder holding the kinds of entries a user's folder
// holds, and enough data that the copy into the image takes a while.
struct World : QvUser {
    std::string folder = home + "/My Files";
    World(const ImageSandbox& sandbox, const std::string& name) : QvUser(sandbox, name, "crash test set") {
        const std::string root = folder;
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
        EXPECT_EQ(qv({"set", "create"}).exitCode, 0);
    }
    std::string trashed() const { return home + "/.local/share/Trash/files/" + fs::path(folder).filename().string(); }
    // The images in the world's storage.
    std::vector<std::string> images() const {
        auto names = listDirectory(data() + "/Data");
        std::erase_if(names, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        return names;
    }
    // Starts `qv encrypt` with the set password on its input and its standard
    // error on *errFd (or /dev/null when errFd is null).
    pid_t startEncrypt(int* errFd) const {
        int in[2], err[2];
        if (::pipe(in) != 0 || ::pipe(err) != 0) return -1;
        const pid_t pid = ::fork();
        if (pid == 0) {
            const int null = ::open("/dev/null", O_WRONLY);
            ::dup2(in[0], 0);
            ::dup2(null, 1);
            ::dup2(errFd ? err[1] : null, 2);
            ::close(in[1]);
            ::close(err[0]);
            for (const auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
            ::execl(binary().c_str(), "qv", "encrypt", folder.c_str(), (char*)nullptr);
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(err[1]);
        const std::string line = password + "\n";
        (void)!::write(in[1], line.data(), line.size());
        ::close(in[1]);
        errFd ? void(*errFd = err[0]) : void(::close(err[0]));
        return pid;
    }
};

// compareTrees without what every new file system holds.
std::vector<std::string> differencesInImage(const std::string& reference, const std::string& mounted) {
    std::vector<std::string> diffs;
    for (const auto& d : compareTrees(reference, mounted, {.wholeSeconds = true}))
        if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
    return diffs;
}

class QvEncrypt : public ::testing::Test {
protected:
    // A copy of the world's folder as it is now, to compare with later.
    std::string reference(const World& w) {
        const std::string copy = sandbox.path(fs::path(w.home).parent_path().filename().string() + "/reference");
        EXPECT_EQ(runProcess({"/bin/cp", "-a", w.folder, copy}, "").exitCode, 0);
        return copy;
    }
    // Opens the world's image of the folder with the password kept in its Folder
    // Set, and compares it with `reference`.
    std::vector<std::string> imageDifferences(const World& w, const std::string& reference) {
        for (const auto& [k, v] : w.env) ::setenv(k.c_str(), v.c_str(), 1);
        QVError error;
        auto master = DBMaster::initWithMasterDBURL(w.data() + "/database3", false, &error);
        if (!master) return {"no database: " + error.description};
        auto subdb = master->getSubDBWithPassword(w.password, &error);
        QVRecordRef folder = subdb ? subdb->folderForMountpath(w.folder) : nullptr;
        if (!folder) return {"no folder record"};
        auto password = QVCrypto::decryptWithString(FolderRef{folder}.password().toData(), w.password);
        if (!password) return {"image password doesn't decrypt"};
        const std::string image = DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
        const std::string mnt = sandbox.makeDir("check-" + std::to_string(++checks));
        auto r = sandbox.attach(image, mnt, std::string(password->begin(), password->end()));
        if (r.exitCode != 0) return {"image doesn't attach: " + r.describe()};
        auto diffs = differencesInImage(reference, mnt);
        sandbox.detach(mnt);
        return diffs;
    }
    ImageSandbox sandbox;
    int checks = 0;
};

} // namespace

TEST_F(QvEncrypt, ProtectsAFolderAndRefusesWhatItMustNot) {
    World w(sandbox, "plain");
    const std::string before = reference(w);
    auto r = w.qv({"encrypt", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "encrypted\t" + w.folder + "\n");
    EXPECT_TRUE(fs::is_directory(w.folder) && fs::is_empty(w.folder)) << "an empty mount point stays";
    EXPECT_EQ(compareTrees(before, w.trashed()), std::vector<std::string>{}) << "the original, whole, in the Trash";
    EXPECT_EQ(w.images().size(), 1u);
    {
        // The image's own password: 30 to 40 random printable characters, kept
        // only wrapped under the set's password.
        auto master = qv::DBMaster::initWithMasterDBURL(w.data() + "/database3", false, nullptr);
        auto set = master ? master->getSubDBWithPassword(w.password, nullptr) : nullptr;
        ASSERT_TRUE(set && set->folders().size() == 1u);
        qv::diskmaster::ImagePassword image(nullptr, set->folders().front());
        ASSERT_TRUE(image.fill(nullptr));
        const std::string plain(image.bytes().begin(), image.bytes().end());
        EXPECT_TRUE(plain.size() >= 30 && plain.size() <= 40) << plain.size();
        EXPECT_TRUE(std::all_of(plain.begin(), plain.end(), [](char c) { return c > ' ' && c < 127; }));
        EXPECT_EQ(readFile(w.data() + "/database3").find(plain), std::string::npos);
        master->returnSubDB(set);
    }
    r = w.qv({"status"});
    EXPECT_EQ(r.out.rfind("locked\t", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\t-\t" + w.folder + "\n"), std::string::npos) << r.out;

    // Unlocked, the folder's path shows every file as it was; locked, nothing.
    r = w.qv({"unlock", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "unlocked\t" + w.folder + "\n");
    EXPECT_EQ(differencesInImage(before, w.folder), std::vector<std::string>{});
    r = w.qv({"lock", w.folder});
    EXPECT_EQ(r.out, "locked\t" + w.folder + "\n");
    EXPECT_TRUE(fs::is_empty(w.folder)) << "the path is empty again";
    EXPECT_EQ(w.qv({"unlock", w.home + "/elsewhere"}).exitCode, 4) << "not a folder of the set";

    // Refusals: exit 4 with the reason.
    r = w.qv({"encrypt", w.folder});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("is already encrypted"), std::string::npos) << r.err;
    r = w.qv({"encrypt", w.data()});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("contains Quillvane's data"), std::string::npos) << r.err;
    EXPECT_EQ(w.qv({"encrypt"}).exitCode, 2);
}

TEST_F(QvEncrypt, AKilledEncryptionNeverLosesOrHalvesTheFiles) {
    // How long a whole encryption takes here sets the moments to kill at.
    World timing(sandbox, "timing");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(timing.qv({"encrypt", timing.folder}).exitCode, 0);
    const auto total = std::chrono::steady_clock::now() - start;

    for (double at : {0.2, 0.5, 0.75, 0.95}) {
        const std::string name = "kill-" + std::to_string(int(at * 100));
        SCOPED_TRACE(name);
        World w(sandbox, name);
        const std::string before = reference(w);
        const pid_t pid = w.startEncrypt(nullptr);
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(total * at);
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        // What the dead process left running (image daemons) dies as with a crash of the machine.
        sandbox.killImageProcesses();
        for (const auto& m : mountTable())
            if (m.mountPoint.rfind(sandbox.root() + "/", 0) == 0) lazyUnmount(m.mountPoint);

        const bool atPath = fs::is_directory(w.folder) && !fs::is_empty(w.folder);
        ASSERT_NE(atPath, fs::exists(w.trashed())) << "the files are in exactly one place";
        if (atPath) {
            EXPECT_EQ(compareTrees(before, w.folder), std::vector<std::string>{}) << "the original, untouched";
        } else {
            EXPECT_EQ(compareTrees(before, w.trashed()), std::vector<std::string>{}) << "the original, whole";
            EXPECT_EQ(imageDifferences(w, before), std::vector<std::string>{}) << "and a complete image";
        }
    }
}

// A user pressing Ctrl-C, again and again, once the image is being created.
TEST_F(QvEncrypt, CtrlCCancelsTheCopyAndLeavesTheFolderAsItWas) {
    World w(sandbox, "interrupted");
    const std::string before = reference(w);
    int err = -1;
    const pid_t pid = w.startEncrypt(&err);
    ASSERT_GT(pid, 0);
    std::string seen;
    char buf[4096];
    for (ssize_t n; seen.find("Creating disk image") == std::string::npos && (n = ::read(err, buf, sizeof buf)) > 0;)
        seen.append(buf, size_t(n));
    EXPECT_NE(seen.find("Creating disk image"), std::string::npos) << seen;
    ::fcntl(err, F_SETFL, O_NONBLOCK);  // keep draining, so that its progress never blocks it
    int status = 0;
    do {  // Ctrl-C until it ends
        ::kill(pid, SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        while (::read(err, buf, sizeof buf) > 0) {
        }
    } while (::waitpid(pid, &status, WNOHANG) != pid);
    ::close(err);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "a cancelled encryption is a failure: " << status;
    EXPECT_EQ(compareTrees(before, w.folder), std::vector<std::string>{}) << "untouched";
    EXPECT_FALSE(fs::exists(w.trashed()));
    EXPECT_EQ(w.images(), std::vector<std::string>{}) << "no image left behind";
    EXPECT_EQ(w.qv({"folders"}).out, "") << "no record left in the set";
}

// A user whose encryption died with the process runs `qv encrypt` again: the
// folder that `qv status` calls unfinished is encrypted in the end, from the
// untouched original or by finishing what the image already holds, and no
// half-made image stays behind.
TEST_F(QvEncrypt, EncryptingAnUnfinishedFolderAgainFinishesIt) {
    int unfinished = 0, worlds = 0;
    for (const char* moment : {"creating", "image in place", "in the Trash"}) {
        SCOPED_TRACE(moment);
        World w(sandbox, "again-" + std::to_string(++worlds));
        const std::string before = reference(w);
        const pid_t pid = w.startEncrypt(nullptr);
        ASSERT_GT(pid, 0);
        // Waits for the moment, then kills the process there.
        const std::string what = moment;
        for (int i = 0; i < 60000; ++i) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) break;
            const bool reached = what == "creating"         ? listDirectory(w.data() + "/Data/Temp").size() >= 2
                                 : what == "image in place" ? !w.images().empty()
                                                            : fs::exists(w.trashed());
            if (reached) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        sandbox.killImageProcesses();
        for (const auto& m : mountTable())
            if (m.mountPoint.rfind(sandbox.root() + "/", 0) == 0) lazyUnmount(m.mountPoint);

        auto r = w.qv({"status"});
        if (r.out.find("\tunfinished\t" + w.folder + "\n") == std::string::npos) continue; // died before or after
        ++unfinished;
        r = w.qv({"encrypt", w.folder});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.out, "encrypted\t" + w.folder + "\n");
        EXPECT_TRUE(fs::is_directory(w.folder) && fs::is_empty(w.folder));
        EXPECT_EQ(compareTrees(before, w.trashed()), std::vector<std::string>{}) << "the original, whole, in the Trash";
        EXPECT_EQ(w.images().size(), 1u) << "one image, the half-made one gone";
        EXPECT_EQ(imageDifferences(w, before), std::vector<std::string>{});
        auto temp =
            fs::exists(w.data() + "/Data/Temp") ? listDirectory(w.data() + "/Data/Temp") : std::vector<std::string>{};
        std::erase_if(temp, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        EXPECT_EQ(temp, std::vector<std::string>{}) << "no image left in Temp";
        r = w.qv({"status"});
        EXPECT_NE(r.out.find("\t-\t" + w.folder + "\n"), std::string::npos) << r.out;
        EXPECT_EQ(w.qv({"folders"}).out, w.folder + "\n") << "one record";
    }
    EXPECT_GE(unfinished, 1) << "no kill left an unfinished folder";
}

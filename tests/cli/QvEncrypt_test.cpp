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
#include "cli/MixedTreeWorld.h"
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

class QvEncrypt : public MixedTreeTest {};

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
        killEncryptAt(w, moment);

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

// qv restore and qv forget as a user runs them: every file comes back as it
// was, and whatever stops a restore (Ctrl-C, a file the image can't give back,
// a killed process) leaves the files whole in the image, never plain copies
// in a folder that is still protected.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "cli/MixedTreeWorld.h"

using namespace qv;
using namespace qv::test;

namespace {

std::vector<std::string> namesIn(const std::string& dir) {
    return fs::exists(dir) ? listDirectory(dir) : std::vector<std::string>{};
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

class QvRestore : public MixedTreeTest {
protected:
    // The images in the world's Trash.
    static std::vector<std::string> trashedImages(const World& w) {
        auto names = namesIn(w.home + "/.local/share/Trash/files");
        std::erase_if(names, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        return names;
    }
    // Nothing of a restore is left: no rescue folder, nothing mounted in Temp.
    static void expectNoRescueLeft(const World& w) {
        for (const auto& name : namesIn(w.data() + "/Data/Temp")) ADD_FAILURE() << "left in Temp: " << name;
        for (const auto& m : mountTable())
            EXPECT_NE(m.mountPoint.rfind(w.data(), 0), 0u) << "still mounted: " << m.mountPoint;
    }
    // A folder restored whole: every file as before, the folder's own mode
    // back, the image in the Trash, the record gone.
    void expectRestored(const World& w, const std::string& before) {
        EXPECT_EQ(differencesInImage(before, w.folder), std::vector<std::string>{});
        for (const auto& name : namesIn(w.folder))
            EXPECT_TRUE(name != "lost+found" && name.rfind(".qvcopy-", 0) != 0) << "left in the folder: " << name;
        EXPECT_EQ(modeOf(w.folder), modeOf(before));
        EXPECT_EQ(w.images(), std::vector<std::string>{});
        EXPECT_EQ(trashedImages(w).size(), 1u);
        EXPECT_EQ(w.qv({"folders"}).out, "") << "no record left";
        expectNoRescueLeft(w);
    }
    // Kills the process, and waits for it.
    static void kill9(pid_t pid) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
};

} // namespace

// An unlocked folder, restored: its volume is taken away first.
TEST_F(QvRestore, BringsEveryFileBackAndForgetsTheFolder) {
    World w(sandbox, "cycle");
    const std::string before = reference(w);
    ASSERT_EQ(w.qv({"encrypt", w.folder}).exitCode, 0);
    ASSERT_EQ(w.qv({"unlock", w.folder}).exitCode, 0);
    auto r = w.qv({"restore", w.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "restored\t" + w.folder + "\n");
    EXPECT_NE(r.err.find("Restored 'My Files'."), std::string::npos) << r.err;
    expectRestored(w, before);

    r = w.qv({"restore", w.folder});
    EXPECT_EQ(r.exitCode, 4) << "no longer a folder of the set";
    EXPECT_EQ(w.qv({"restore"}).exitCode, 2);
}

// A user pressing Ctrl-C while the files are being copied out.
TEST_F(QvRestore, CtrlCDuringTheCopyLeavesTheFolderLockedAndEmpty) {
    World w(sandbox, "cancel");
    // Enough that the copy runs for seconds after the first Ctrl-C.
    for (int i = 0; i < 4; ++i) writeBytes(w.folder + "/large" + std::to_string(i), patternBytes(10 + i, 128 << 20));
    const std::string before = reference(w);
    ASSERT_EQ(w.qv({"encrypt", w.folder}).exitCode, 0);
    int err = -1;
    const pid_t pid = w.start({"restore", w.folder}, &err);
    ASSERT_GT(pid, 0);
    std::string seen;
    char buf[4096];
    for (ssize_t n; seen.find("Copying data") == std::string::npos && (n = ::read(err, buf, sizeof buf)) > 0;)
        seen.append(buf, size_t(n));
    ASSERT_NE(seen.find("Copying data"), std::string::npos) << seen;
    ::fcntl(err, F_SETFL, O_NONBLOCK);
    int status = 0;
    do { // Ctrl-C until qv says it cancels
        if (seen.find("cancelling") == std::string::npos) ::kill(pid, SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (ssize_t n; (n = ::read(err, buf, sizeof buf)) > 0;) seen.append(buf, size_t(n));
    } while (::waitpid(pid, &status, WNOHANG) != pid);
    ::close(err);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "a cancelled restore is a failure: " << status;
    EXPECT_EQ(seen.find("Restored"), std::string::npos) << "cancelled before the copy ended";
    EXPECT_EQ(namesIn(w.folder), std::vector<std::string>{}) << "no plain copy stays";
    EXPECT_EQ(modeOf(w.folder), 0555u) << "locked again";
    EXPECT_EQ(stateOf(w.qv({"status"}).out, w.folder), "locked");
    EXPECT_EQ(w.qv({"folders"}).out, w.folder + "\n") << "the record stays";
    expectNoRescueLeft(w);
    EXPECT_EQ(imageDifferences(w, before), std::vector<std::string>{}) << "the image intact";
}

// A file that the image can't give back (its inode damaged) fails the restore
// half-way: the copies made so far go, and only they; what else lies in the
// folder stays. The user is then asked where to put the image: no answer
// keeps folder and image; a place gets the image and its password there.
TEST_F(QvRestore, AFailedRestoreDeletesOnlyTheCopiedNamesAndOffersTheRescue) {
    World w(sandbox, "failed");
    writeBytes(w.folder + "/zz-damaged", patternBytes(7, 1 << 20));
    const std::string before = reference(w);
    ASSERT_EQ(w.qv({"encrypt", w.folder}).exitCode, 0);
    std::string password, why;
    const std::string image = imageOf(w, &password, &why);
    ASSERT_FALSE(image.empty()) << why;
    // The file's indirect block pointed past the disk's end: reading it fails.
    // (A mount that meets the damage may mend it, so it is done before each restore.)
    auto damage = [&] {
        std::string dev;
        ASSERT_EQ(sandbox.attachNoMount(image, password, &dev).exitCode, 0);
        auto r = runProcess({"/usr/sbin/debugfs", "-w", "-R", "sif /zz-damaged block[IND] 2000000000", dev}, "");
        EXPECT_EQ(r.exitCode, 0) << r.err;
        sandbox.detach(dev, true);
    };
    damage();
    std::ofstream(w.folder + "/not the image's.txt") << "stays"; // root writes into the read-only folder

    auto r = w.qv({"restore", w.folder});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("Restore failed"), std::string::npos) << r.err;
    EXPECT_EQ(namesIn(w.folder), std::vector<std::string>{"not the image's.txt"});
    EXPECT_EQ(w.qv({"folders"}).out, w.folder + "\n") << "the record stays";
    EXPECT_EQ(w.images().size(), 1u) << "the image stays";
    expectNoRescueLeft(w);
    auto diffs = imageDifferences(w, before);
    std::erase_if(diffs, [](const std::string& d) { return d.find("zz-damaged") != std::string::npos; });
    EXPECT_EQ(diffs, std::vector<std::string>{}) << "every other file whole in the image";

    const std::string place = sandbox.makeDir("failed/rescued");
    damage();
    r = w.qv({"restore", w.folder}, w.password + "\n" + place + "\n");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(namesIn(w.folder), std::vector<std::string>{"not the image's.txt"});
    EXPECT_TRUE(fs::exists(place + "/My Files.sparsebundle")) << r.err;
    EXPECT_EQ(readFile(place + "/My Files - PASSWORD (DELETE ME!).txt"), password);
    EXPECT_EQ(w.qv({"folders"}).out, "") << "the rescued folder left the set";
}

// `qv restore` killed at many moments: the image is never touched before it
// goes to the Trash, a rescue mount left behind is taken away at the next
// start, and the next `qv restore` ends with every file in the folder.
TEST_F(QvRestore, AKilledRestoreIsFinishedByTheNextOne) {
    World timing(sandbox, "timing");
    ASSERT_EQ(timing.qv({"encrypt", timing.folder}).exitCode, 0);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(timing.qv({"restore", timing.folder}).exitCode, 0);
    const auto total = std::chrono::steady_clock::now() - start;

    for (double at : {0.15, 0.35, 0.55, 0.75, 0.9}) {
        const std::string name = "kill-" + std::to_string(int(at * 100));
        SCOPED_TRACE(name);
        World w(sandbox, name);
        const std::string before = reference(w);
        ASSERT_EQ(w.qv({"encrypt", w.folder}).exitCode, 0);
        const pid_t pid = w.start({"restore", w.folder}, nullptr);
        ASSERT_GT(pid, 0);
        std::this_thread::sleep_for(total * at);
        kill9(pid);
        // The user comes back a moment later: a mount the dead process had
        // asked for has then stood up on its rescue folder, unclaimed.
        std::this_thread::sleep_for(std::chrono::seconds(3));
        if (w.qv({"folders"}).out.empty()) { // it ended before the kill
            expectRestored(w, before);
            continue;
        }

        // The next start takes the rescue mount away; the image is whole
        // unless it is in the Trash already, and then the folder is.
        EXPECT_EQ(w.qv({"status"}).exitCode, 0);
        if (w.images().empty())
            EXPECT_EQ(differencesInImage(before, w.folder), std::vector<std::string>{});
        else
            EXPECT_EQ(imageDifferences(w, before), std::vector<std::string>{});
        auto r = w.qv({"restore", w.folder});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.out, "restored\t" + w.folder + "\n");
        expectRestored(w, before);
    }
}

// Giving a folder up: its image goes where the user says, its password beside it.
TEST_F(QvRestore, ForgetHandsOverTheImageAndItsPassword) {
    World w(sandbox, "forget");
    ASSERT_EQ(w.qv({"encrypt", w.folder}).exitCode, 0);
    std::string password, why;
    const std::string image = imageOf(w, &password, &why);
    ASSERT_FALSE(image.empty()) << why;
    const std::string place = sandbox.makeDir("forget/kept");
    auto r = w.qv({"forget", w.folder}, w.password + "\n" + place + "\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "forgotten\t" + w.folder + "\n");
    const std::string moved = place + "/My Files.sparsebundle";
    EXPECT_FALSE(fs::exists(image));
    EXPECT_EQ(readFile(place + "/My Files - PASSWORD (DELETE ME!).txt"), password);
    const std::string mnt = sandbox.makeDir("forget/mnt");
    EXPECT_EQ(sandbox.attach(moved, mnt, password).exitCode, 0) << "the password opens the moved image";
    sandbox.detach(mnt);
    EXPECT_EQ(w.qv({"folders"}).out, "");
    EXPECT_EQ(w.qv({"forget", w.folder}).exitCode, 4);
}

// A folder whose encryption died with its process: `qv restore` clears it,
// from the untouched original or by restoring the finished image.
TEST_F(QvRestore, RestoringAnUnfinishedFolderClearsIt) {
    int unfinished = 0, worlds = 0;
    for (const char* moment : {"creating", "image in place", "in the Trash"}) {
        SCOPED_TRACE(moment);
        World w(sandbox, "unfinished-" + std::to_string(++worlds));
        const std::string before = reference(w);
        killEncryptAt(w, moment);
        if (w.qv({"status"}).out.find("\tunfinished\t" + w.folder + "\n") == std::string::npos) continue;
        ++unfinished;
        auto r = w.qv({"restore", w.folder});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        EXPECT_EQ(r.out, "restored\t" + w.folder + "\n");
        EXPECT_EQ(differencesInImage(before, w.folder), std::vector<std::string>{});
        EXPECT_EQ(w.images(), std::vector<std::string>{}) << "no image left in the storage";
        EXPECT_EQ(w.qv({"folders"}).out, "");
    }
    EXPECT_GE(unfinished, 1) << "no kill left an unfinished folder";
}

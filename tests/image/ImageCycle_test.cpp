// The life of an image on both file-system layers: what reaches the disk and
// what the band files hold; surviving a crash of the processes that serve it;
// refusing to detach a volume in use. And the sandbox teardown they all rely on.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;
using namespace std::chrono_literals;

namespace {

const std::string kPassword = "correct horse battery staple";
constexpr uint64_t kBandSize = 8ull << 20;

class ImageLayerTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
        box.setLayer(GetParam());
        image = box.createOrFail("image.sparsebundle", kPassword, 96);
        ASSERT_FALSE(HasFailure());
    }
    ImageSandbox box;
    std::string image;
    const std::string mnt = box.makeDir("folder");
};

TEST_P(ImageLayerTest, WhatIsWrittenReachesTheDiskButNoBandHoldsIt) {
    ASSERT_EQ(box.attach(image, mnt, kPassword, /*nobrowse=*/true).exitCode, 0);
    auto entry = mountAt(mnt);
    ASSERT_TRUE(entry) << "not a mount point after attach";
    EXPECT_EQ(entry->fsType.find(GetParam() == "kernel" ? "ext4" : "fuse"), 0u) << entry->fsType;
    // A fresh volume shows nothing of its own to the user: lost+found is hidden.
    EXPECT_EQ(listDirectory(mnt), (std::vector<std::string>{".hidden", "lost+found"}));
    EXPECT_NE(readFile(mnt + "/.hidden").find("lost+found"), std::string::npos);
    const std::string marker = "QV-PLAINTEXT-MARKER:3f9a1c77e2b8d4!";
    std::string payload;
    while (payload.size() < (8u << 20)) payload += marker;
    writeFileSynced(mnt + "/marker.txt", payload);
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    EXPECT_TRUE(listDirectory(mnt).empty()) << "the folder must be empty once detached";
    EXPECT_TRUE(waitUntilNoProcessUses(box.root())) << "a process still serves the image after detach";
    // Nor does anything of the attachment stay behind in the runtime directory.
    EXPECT_EQ(listDirectory(box.runtimeDir() + "/qv-image"), std::vector<std::string>{});

    // The marker reached the decrypted disk, but no file of the image holds a piece of it.
    std::string dev;
    CommandResult r = box.attachNoMount(image, kPassword, &dev);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    ASSERT_EQ(dev.rfind('/', 0), 0u) << "no absolute dev-entry in: " << r.out;
    EXPECT_NE(readFile(dev).find(marker), std::string::npos) << "the marker never reached the disk";
    EXPECT_EQ(box.detach(dev).exitCode, 0);
    EXPECT_FALSE(fs::exists(dev)) << "the disk is still served after its detach";
    std::vector<std::string> leaking;
    size_t files = 0;
    for (const auto& e : fs::recursive_directory_iterator(image))
        if (e.is_regular_file() && ++files && readFile(e.path()).find(marker.substr(0, 16)) != std::string::npos)
            leaking.push_back(e.path());
    EXPECT_TRUE(leaking.empty() && files > 3) << files << " files, plaintext in " << ::testing::PrintToString(leaking);
}

// A writer creates files one after the other and notes each name in a log
// outside the image once the file and its directory are fsync'ed; then
// everything serving the image dies, as in a crash, three times over.
TEST_P(ImageLayerTest, FsyncedFilesSurviveKillNineOfTheImageProcesses) {
    std::map<std::string, std::string> headers;
    for (const char* name : {"Info.plist", "Info.bckup", "token"}) headers[name] = readFile(image + "/" + name);
    const std::string ballast = patternBytes(77, 20u << 20), log = box.path("confirmed");
    // dd fsyncs the descriptor it wrote through: fuse2fs flushes only for one open for writing.
    const std::string writer = "cd \"$1\" || exit 1; i=0; while :; do yes \"$2$i\" | head -c 300000 | dd of=\"$2$i\" "
                               "conv=fsync status=none && sync . && echo \"$2$i\" >> \"$3\"; i=$((i+1)); done";
    auto contentOf = [](const std::string& name) {
        std::string s;
        for (; s.size() < 300000; s += name + "\n") {}
        return s.substr(0, 300000);
    };

    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    writeFileSynced(mnt + "/ballast", ballast);
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(round == 1 || box.attach(image, mnt, kPassword).exitCode == 0);
        const pid_t w = startHolder({"sh", "-c", writer, "sh", mnt, "r" + std::to_string(round) + "_", log});
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + 500 * round));
        EXPECT_GT(box.killImageProcesses(), 1u) << "the writer and what serves the image";
        stopChild(w);
        lazyUnmount(mnt);
        ASSERT_FALSE(isMountPoint(mnt));
        // Never touched by a crash: the header files, and a band is whole sectors within its 8 MiB.
        for (const auto& [name, bytes] : headers) EXPECT_EQ(readFile(image + "/" + name), bytes) << name << " changed";
        for (const auto& band : listDirectory(image + "/bands")) {
            const auto size = fs::file_size(image + "/bands/" + band);
            EXPECT_TRUE(size <= kBandSize && size % 4096 == 0) << "band " << band << " is " << size << " bytes";
        }
    }

    // After the repairs and again after a clean cycle, every confirmed file is whole.
    for (int pass = 0; pass < 2; ++pass) {
        ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
        EXPECT_TRUE(readFile(mnt + "/ballast") == ballast);
        std::istringstream confirmed(readFile(log));
        size_t n = 0;
        for (std::string name; std::getline(confirmed, name); ++n)
            EXPECT_TRUE(readFile(mnt + "/" + name) == contentOf(name)) << name << " damaged";
        EXPECT_GT(n, 0u) << "the writer never got a file through before the crashes";
        ASSERT_EQ(box.detach(mnt).exitCode, 0);
    }
}

TEST_P(ImageLayerTest, ChangesMadeWithoutFsyncSurviveACrashSecondsLater) {
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    // fuse2fs would keep these new directory entries in its memory until an fsync
    // or the unmount; the kernel's ext4 commits them within seconds. Either way they
    // must be on disk well before this wait is over (the kernel writes the note's
    // contents later still, as on any ext4).
    fs::create_directories(mnt + "/unsynced/inner");
    std::ofstream(mnt + "/unsynced/note") << "no fsync";
    std::this_thread::sleep_for(std::chrono::seconds(12));
    EXPECT_GT(box.killImageProcesses(), 0u);
    lazyUnmount(mnt);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    EXPECT_TRUE(fs::is_directory(mnt + "/unsynced/inner"));
    EXPECT_TRUE(fs::exists(mnt + "/unsynced/note"));
    if (GetParam() == "fuse2fs") {
        EXPECT_EQ(readFile(mnt + "/unsynced/note"), "no fsync");
    }
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

TEST_P(ImageLayerTest, DetachRefusesABusyVolumeAndNamesTheHolder) {
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    const std::string held = mnt + "/held.txt";
    writeFileSynced(held, "held");
    fs::create_directories(mnt + "/inner");
    // Each kind of holder on its own, so that the one named must be it: a working
    // directory inside, an open file, a mapping whose file was closed.
    const std::string holder = "import mmap,sys,time\nf=open(sys.argv[2],'rb')\nif sys.argv[1]=='map':\n"
                               " m=mmap.mmap(f.fileno(),0,prot=mmap.PROT_READ)\n f.close()\n"
                               "open(sys.argv[3],'w').close()\ntime.sleep(600)\n";
    for (const std::string kind : {"cwd", "file", "map"}) {
        SCOPED_TRACE(kind);
        const std::string ready = box.path("ready-" + kind);
        const pid_t pid = kind == "cwd" ? startHolder({"sleep", "600"}, mnt + "/inner")
                                        : startHolder({"python3", "-c", holder, kind, held, ready});
        for (int i = 0; i < 200 && kind != "cwd" && !fs::exists(ready); ++i) std::this_thread::sleep_for(50ms);
        CommandResult r = box.detach(mnt);
        EXPECT_EQ(r.exitCode, 8) << r.describe();
        const std::string holderText = "busy: held by " + processName(pid) + " (pid " + std::to_string(pid) + ")";
        EXPECT_TRUE(r.err.rfind("qv-image: ", 0) == 0 && r.err.find(holderText) != std::string::npos) << r.err;
        EXPECT_TRUE(isMountPoint(mnt)) << "a refused detach must leave the volume mounted";
        stopChild(pid);
    }
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

INSTANTIATE_TEST_SUITE_P(Layers, ImageLayerTest, ::testing::Values("fuse2fs", "kernel"),
                         [](const auto& info) { return info.param; });

TEST(ImageSandboxTeardown, TeardownLeavesNoMountLoopDeviceOrProcess) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount";
    auto box = std::make_unique<ImageSandbox>();
    const std::string root = box->root(), disk = box->path("plain.img");
    ASSERT_EQ(runCommand({"truncate", "-s", "32M", disk}).exitCode, 0);
    ASSERT_EQ(runCommand({"mkfs.ext4", "-q", "-F", disk}).exitCode, 0);
    const std::string viaFuse = box->makeDir("fuse"), viaLoop = box->makeDir("loop");
    ASSERT_EQ(runCommand({"fuse2fs", disk, viaFuse, "-o", "ro"}).exitCode, 0);
    ASSERT_EQ(runCommand({"mount", "-o", "loop,ro", disk, viaLoop}).exitCode, 0);
    // Processes that hold the mounts: one of ours, one whose parent is gone.
    const pid_t inside = startHolder({"sleep", "120"}, viaFuse + "/lost+found");
    ASSERT_EQ(runCommand({"sh", "-c", "cd \"$1\" && (sleep 120 >/dev/null 2>&1 </dev/null &)", "sh", viaLoop}).exitCode,
              0);

    box.reset();
    EXPECT_FALSE(fs::exists(root));
    for (const auto& m : mountTable()) EXPECT_NE(m.mountPoint.rfind(root, 0), 0u) << m.mountPoint;
    EXPECT_EQ(runCommand({"losetup", "-l", "-n", "-O", "BACK-FILE"}).out.find(root), std::string::npos);
    EXPECT_TRUE(processesUsing(root).empty());
    EXPECT_TRUE(::waitpid(inside, nullptr, WNOHANG) == inside || ::kill(inside, 0) != 0) << "the holder lives on";
}

} // namespace

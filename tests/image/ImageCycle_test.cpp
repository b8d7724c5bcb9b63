// The life of an image on both file-system layers: attach, use, detach; what
// reaches the band files; surviving a crash of the processes that serve it;
// refusing to detach a volume in use.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "correct horse battery staple";
constexpr uint64_t kBandSize = 8ull << 20;

std::string layerName(const ::testing::TestParamInfo<std::string>& info) { return info.param; }

// Waits until nothing runs on behalf of the sandbox any more (the background
// device process ends some time after a detach returns).
bool waitUntilNoProcesses(const std::string& prefix, int seconds) {
    for (int i = 0; i < seconds * 10; ++i) {
        if (processesUsing(prefix).empty()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

// The user-visible entries of a volume root: what the program itself keeps there is left out.
std::vector<std::string> userEntries(const std::string& mountPoint) {
    std::vector<std::string> names;
    for (const auto& n : listDirectory(mountPoint))
        if (n != "lost+found" && n != ".hidden") names.push_back(n);
    return names;
}

class ImageLayerTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
        box.setLayer(GetParam());
    }
    ImageSandbox box;
};

// ------------------------------------------------------------------ the cycle

TEST_P(ImageLayerTest, AttachWriteDetachAndAttachAgain) {
    const std::string image = box.createOrFail("cycle.sparsebundle", kPassword, 96);
    ASSERT_FALSE(HasFailure());
    const std::string mnt = box.makeDir("folder");

    CommandResult r = box.attach(image, mnt, kPassword);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    auto entry = mountAt(mnt);
    ASSERT_TRUE(entry) << "not a mount point after attach";
    if (GetParam() == "kernel")
        EXPECT_EQ(entry->fsType, "ext4");
    else
        EXPECT_NE(entry->fsType.find("fuse"), std::string::npos) << entry->fsType;

    // A fresh volume shows nothing of its own to the user but hides lost+found.
    EXPECT_TRUE(userEntries(mnt).empty());
    EXPECT_NE(readFile(mnt + "/.hidden").find("lost+found"), std::string::npos);

    // Ordinary file work: nested directories, rename, delete, overwrite.
    fs::create_directories(mnt + "/a/b");
    writeFileSynced(mnt + "/a/b/one.bin", patternBytes(1, 300000));
    writeFileSynced(mnt + "/two.txt", "hello");
    fs::rename(mnt + "/two.txt", mnt + "/a/renamed.txt");
    writeFileSynced(mnt + "/gone.txt", "bye");
    fs::remove(mnt + "/gone.txt");
    writeFileSynced(mnt + "/a/b/one.bin", patternBytes(2, 123457));
    EXPECT_EQ(readFile(mnt + "/a/b/one.bin"), patternBytes(2, 123457));
    EXPECT_EQ(readFile(mnt + "/a/renamed.txt"), "hello");

    r = box.detach(mnt);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
    EXPECT_TRUE(listDirectory(mnt).empty()) << "the folder must be empty once detached";
    EXPECT_TRUE(waitUntilNoProcesses(box.root(), 15)) << "a process still serves the image after detach";

    r = box.attach(image, mnt, kPassword, /*nobrowse=*/true);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_EQ(readFile(mnt + "/a/b/one.bin"), patternBytes(2, 123457));
    EXPECT_EQ(readFile(mnt + "/a/renamed.txt"), "hello");
    EXPECT_FALSE(fs::exists(mnt + "/gone.txt"));
    r = box.detach(mnt);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
}

TEST_P(ImageLayerTest, BandsNeverHoldWhatWasWrittenThroughTheMount) {
    const std::string image = box.createOrFail("secret.sparsebundle", kPassword, 96);
    ASSERT_FALSE(HasFailure());
    const std::string mnt = box.makeDir("folder");
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);

    const std::string marker = "QV-PLAINTEXT-MARKER:3f9a1c77e2b8d4!";
    std::string payload;
    while (payload.size() < (8u << 20)) payload += marker;
    writeFileSynced(mnt + "/marker.txt", payload);
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // The marker reached the decrypted disk ...
    std::string dev;
    CommandResult r = box.attachNoMount(image, kPassword, &dev);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    ASSERT_FALSE(dev.empty()) << "no dev-entry in: " << r.out;
    EXPECT_EQ(dev[0], '/') << "dev-entry must be absolute";
    EXPECT_FALSE(isMountPoint(box.path("folder")));
    EXPECT_NE(readFile(dev).find(marker), std::string::npos) << "the marker never reached the disk";
    r = box.detach(dev);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(fs::exists(dev)) << "the disk is still served after its detach";

    // ... but no file of the image holds any piece of it.
    const std::string half = marker.substr(0, 16);
    size_t files = 0;
    for (const auto& e : fs::recursive_directory_iterator(image)) {
        if (!e.is_regular_file()) continue;
        ++files;
        const std::string bytes = readFile(e.path());
        EXPECT_EQ(bytes.find(half), std::string::npos) << "plaintext in " << e.path();
    }
    EXPECT_GT(files, 3u);
}

// ------------------------------------------------------------------ crashes

// The bands that hold nothing but the blocks of one file, found through the
// decrypted disk: a crash must leave them exactly as they were.
std::set<uint64_t> bandsHoldingOnly(const ImageSandbox& box, const std::string& image, const std::string& file) {
    std::set<uint64_t> bands;
    std::string dev;
    CommandResult r = box.attachNoMount(image, kPassword, &dev);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    if (dev.empty()) return bands;
    CommandResult blocks = runCommand({"debugfs", "-R", "blocks " + file, dev});
    CommandResult super = runCommand({"dumpe2fs", "-h", dev});
    box.detach(dev);
    uint64_t blockSize = 0;
    std::istringstream lines(super.out);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("Block size:", 0) == 0) blockSize = std::stoull(line.substr(11));
    EXPECT_GT(blockSize, 0u) << super.describe();
    if (!blockSize) return bands;
    std::map<uint64_t, uint64_t> covered;  // band -> bytes of the file in it
    std::istringstream in(blocks.out);
    for (uint64_t block; in >> block;) covered[block * blockSize / kBandSize] += blockSize;
    for (const auto& [band, bytes] : covered)
        if (bytes == kBandSize) bands.insert(band);
    return bands;
}

std::string bandPath(const std::string& image, uint64_t band) {
    std::ostringstream name;
    name << std::hex << band;
    return image + "/bands/" + name.str();
}

// What a crash may never touch: the header files, and a band is always a whole
// number of sectors within its 8 MiB.
void expectImageShapeIntact(const std::string& image, const std::map<std::string, std::string>& headers,
                            const std::map<uint64_t, std::string>& frozenBands, const std::string& when) {
    for (const auto& [name, hash] : headers)
        EXPECT_EQ(fileSha256(image + "/" + name), hash) << name << " changed " << when;
    for (const auto& [band, hash] : frozenBands)
        EXPECT_EQ(fileSha256(bandPath(image, band)), hash) << "band " << band << " changed " << when;
    for (const auto& e : fs::directory_iterator(image + "/bands")) {
        const std::string name = e.path().filename().string();
        EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos) << "odd band name " << name;
        EXPECT_LE(e.file_size(), kBandSize) << name;
        EXPECT_EQ(e.file_size() % 4096, 0u) << "band " << name << " ends in a torn sector " << when;
    }
}

// A writer that creates files one after the other, fsyncs each and its
// directory, and only then reports the file's number on a pipe.
struct Writer {
    pid_t pid = -1;
    int reports = -1;
};

std::string streamContent(const std::vector<std::string>& contents, uint32_t i) {
    std::string c = contents[i % contents.size()];
    std::memcpy(c.data(), &i, sizeof i);
    return c;
}

Writer startWriter(const std::string& dir, const std::string& prefix, const std::vector<std::string>& contents) {
    // Built before fork: the child only makes system calls.
    std::vector<std::string> names;
    std::vector<std::string> bodies;
    for (uint32_t i = 0; i < 2000; ++i) {
        names.push_back(dir + "/" + prefix + std::to_string(i));
        if (i < contents.size()) bodies.push_back(contents[i]);
    }
    int p[2];
    if (::pipe(p) != 0) return {};
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(p[0]);
        int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
        for (uint32_t i = 0; i < names.size(); ++i) {
            std::string& body = bodies[i % bodies.size()];
            std::memcpy(body.data(), &i, sizeof i);
            int fd = ::open(names[i].c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0) ::_exit(3);
            size_t done = 0;
            while (done < body.size()) {
                ssize_t n = ::write(fd, body.data() + done, body.size() - done);
                if (n <= 0) ::_exit(3);
                done += size_t(n);
            }
            if (::fsync(fd) != 0 || ::close(fd) != 0 || ::fsync(dfd) != 0) ::_exit(3);
            if (::write(p[1], &i, sizeof i) != sizeof i) ::_exit(3);
        }
        ::_exit(0);
    }
    ::close(p[1]);
    return {pid, p[0]};
}

std::vector<uint32_t> stopWriter(Writer& w) {
    std::vector<uint32_t> done;
    ::kill(w.pid, SIGKILL);
    int status;
    ::waitpid(w.pid, &status, 0);
    uint32_t i;
    while (::read(w.reports, &i, sizeof i) == sizeof i) done.push_back(i);
    ::close(w.reports);
    return done;
}

TEST_P(ImageLayerTest, FsyncedFilesSurviveKillNineOfTheImageProcesses) {
    const std::string image = box.createOrFail("crash.sparsebundle", kPassword, 160);
    ASSERT_FALSE(HasFailure());
    const std::string mnt = box.makeDir("folder");

    // Ballast written before any crash: its bands must never change again.
    const std::string ballast = patternBytes(77, 40u << 20);
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    writeFileSynced(mnt + "/ballast", ballast);
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    const std::set<uint64_t> ballastBands = bandsHoldingOnly(box, image, "/ballast");
    EXPECT_FALSE(ballastBands.empty()) << "40 MiB of file should fill at least one whole band";

    std::map<std::string, std::string> headers;
    for (const char* name : {"Info.plist", "Info.bckup", "token"}) headers[name] = fileSha256(image + "/" + name);
    std::map<uint64_t, std::string> frozen;
    for (uint64_t b : ballastBands) frozen[b] = fileSha256(bandPath(image, b));

    std::map<std::string, std::string> expected;  // file -> content, every one fsync'ed before a crash
    auto crashAndClean = [&](const std::string& when) {
        EXPECT_GT(box.killImageProcesses(), 0u) << "no process served the image " << when;
        lazyUnmount(mnt);
        EXPECT_FALSE(isMountPoint(mnt));
        expectImageShapeIntact(image, headers, frozen, when);
    };
    auto reattachAndVerify = [&](const std::string& when) {
        CommandResult r = box.attach(image, mnt, kPassword);
        EXPECT_EQ(r.exitCode, 0) << "attach " << when << ": " << r.describe();
        if (r.exitCode != 0) return false;
        EXPECT_EQ(readFile(mnt + "/ballast"), ballast) << when;
        for (const auto& [name, content] : expected) {
            std::string got;
            try {
                got = readFile(mnt + "/" + name);
            } catch (const std::exception& e) {
                ADD_FAILURE() << e.what() << " " << when;
                continue;
            }
            EXPECT_TRUE(got == content) << name << " damaged " << when << " (" << got.size() << " bytes)";
        }
        return true;
    };

    // One file, fsync'ed, then everything serving the image dies.
    ASSERT_TRUE(reattachAndVerify("before the first crash"));
    expected["single"] = patternBytes(5, 1 << 20);
    writeFileSynced(mnt + "/single", expected["single"]);
    crashAndClean("by a crash after an fsync");

    // Crashes in the middle of a stream of writes.
    std::vector<std::string> contents;
    for (int i = 0; i < 16; ++i) contents.push_back(patternBytes(1000 + i, 200000 + 4096 * i));
    std::mt19937 rng(20240611);
    size_t confirmed = 0;
    for (int round = 1; round <= 3; ++round) {
        const std::string when = "in round " + std::to_string(round);
        ASSERT_TRUE(reattachAndVerify(when));
        const std::string prefix = "r" + std::to_string(round) + "_";
        Writer w = startWriter(mnt, prefix, contents);
        ASSERT_GT(w.pid, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + rng() % 1200));
        // The image processes go first, as in a crash; the writer is ours.
        std::vector<pid_t> victims;
        for (pid_t p : processesUsing(box.root()))
            if (p != w.pid) victims.push_back(p);
        EXPECT_FALSE(victims.empty());
        killProcesses(victims);
        for (uint32_t i : stopWriter(w)) {
            expected[prefix + std::to_string(i)] = streamContent(contents, i);
            ++confirmed;
        }
        lazyUnmount(mnt);
        EXPECT_FALSE(isMountPoint(mnt));
        expectImageShapeIntact(image, headers, frozen, when);
    }
    EXPECT_GT(confirmed, 0u) << "the writer never got a file through before the crashes";

    // After the repairs, a clean cycle still works and keeps everything.
    ASSERT_TRUE(reattachAndVerify("after the last crash"));
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
    ASSERT_TRUE(reattachAndVerify("after a clean detach"));
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

// ------------------------------------------------------------------ busy volumes

pid_t startMapper(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    pid_t pid = ::fork();
    if (pid == 0) {
        void* m = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
        ::close(fd);
        if (m == MAP_FAILED) ::_exit(3);
        for (;;) ::pause();
    }
    ::close(fd);
    return pid;
}

TEST_P(ImageLayerTest, DetachRefusesABusyVolumeAndNamesTheHolder) {
    const std::string image = box.createOrFail("busy.sparsebundle", kPassword, 64);
    ASSERT_FALSE(HasFailure());
    const std::string mnt = box.makeDir("folder");
    ASSERT_EQ(box.attach(image, mnt, kPassword).exitCode, 0);
    writeFileSynced(mnt + "/held.txt", patternBytes(3, 10000));
    fs::create_directories(mnt + "/inner");

    const std::string held = mnt + "/held.txt";
    // Each kind of holder on its own, so that the one named must be it.
    auto shellInside = [&] { return startHolder({"/bin/sh"}, mnt + "/inner"); };
    auto openFile = [&] {
        // sleep inherits a descriptor opened for it.
        int fd = ::open(held.c_str(), O_RDONLY);
        if (fd < 0) return pid_t(-1);
        pid_t pid = ::fork();
        if (pid == 0) {
            ::dup2(fd, 5);
            ::execlp("sleep", "sleep", "600", (char*)nullptr);
            ::_exit(127);
        }
        ::close(fd);
        return pid;
    };
    auto mapping = [&] { return startMapper(held); };
    const std::vector<std::pair<std::string, std::function<pid_t()>>> holders = {
        {"a shell whose working directory is inside", shellInside},
        {"a process with an open file", openFile},
        {"a process with a mapping", mapping}};
    for (const auto& [what, start] : holders) {
        const pid_t pid = start();
        ASSERT_GT(pid, 0) << what;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let exec and chdir happen
        CommandResult r = box.detach(mnt);
        EXPECT_EQ(r.exitCode, 8) << what << ": " << r.describe();
        EXPECT_EQ(r.err.rfind("qv-image: ", 0), 0u) << r.err;
        EXPECT_NE(r.err.find("busy: held by " + processName(pid) + " (pid " + std::to_string(pid) + ")"),
                  std::string::npos)
            << what << ": " << r.err;
        EXPECT_TRUE(isMountPoint(mnt)) << "a refused detach must leave the volume mounted";
        EXPECT_EQ(readFile(held), patternBytes(3, 10000));
        stopChild(pid);
    }

    // -force takes a held volume away lazily.
    const pid_t last = startHolder({"/bin/sh"}, mnt);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(box.detach(mnt).exitCode, 8);
    CommandResult r = box.detach(mnt, /*force=*/true);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    EXPECT_FALSE(isMountPoint(mnt));
    stopChild(last);

    // Once the last holder is gone the image is free again and can be attached.
    CommandResult again;
    for (int i = 0; i < 30; ++i) {
        again = box.attach(image, mnt, kPassword);
        if (again.exitCode != 5) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    EXPECT_EQ(again.exitCode, 0) << again.describe();
    EXPECT_EQ(readFile(held), patternBytes(3, 10000));
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

INSTANTIATE_TEST_SUITE_P(Layers, ImageLayerTest, ::testing::Values("fuse2fs", "kernel"), layerName);

} // namespace

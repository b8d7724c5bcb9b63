// Bad input of every kind: damaged images, wrong passwords, absurd sizes,
// unknown verbs and refused mount points. Each must end in the documented
// exit status with one "qv-image: " line on stderr, never by a signal, and
// must leave every file as it was.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "bad-input-password";

enum Exit { Ok = 0, Failure = 1, Usage = 2, WrongPassword = 3, NotAnImage = 4, Attached = 5, BadMountPoint = 6 };

// The failure is the documented one and reads as one line.
void expectFailure(const CommandResult& r, int code, const std::string& what) {
    EXPECT_TRUE(r.exited) << what << ": ended by signal " << r.termSignal;
    EXPECT_EQ(r.exitCode, code) << what << ": " << r.describe();
    std::string err = r.err;
    if (!err.empty() && err.back() == '\n') err.pop_back();
    EXPECT_EQ(err.rfind("qv-image: ", 0), 0u) << what << ": stderr should begin with \"qv-image: \": [" << r.err << "]";
    EXPECT_EQ(err.find('\n'), std::string::npos) << what << ": more than one line on stderr: [" << r.err << "]";
    EXPECT_GT(err.size(), std::string("qv-image: ").size() + 5) << what << ": no reason given";
    EXPECT_EQ(err.find(kPassword), std::string::npos) << what << ": the password is on stderr";
    EXPECT_EQ(r.out.find(kPassword), std::string::npos) << what << ": the password is on stdout";
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

class ImageBadInputTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (::geteuid() != 0) return;
        suite_ = new ImageSandbox;
        CommandResult r = suite_->create(suite_->path("good.sparsebundle"), kPassword, 64);
        if (r.exitCode != 0) {
            goodError_ = r.describe();
            return;
        }
        good_ = suite_->path("good.sparsebundle");
    }
    static void TearDownTestSuite() {
        delete suite_;
        suite_ = nullptr;
        good_.clear();
    }
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
        ASSERT_FALSE(good_.empty()) << "no image to work on: " << goodError_;
    }
    // A private copy of the good image.
    std::string copyOfGood(const std::string& name) {
        std::string copy = box.path(name);
        copyTree(good_, copy);
        return copy;
    }
    // Every verb that opens an image, run against `image`, each expected to fail with `code`.
    void expectEveryVerbFails(const std::string& image, int code, const std::string& what,
                              const std::string& password = kPassword) {
        const std::string mnt = box.makeDir("mnt");
        const std::vector<std::vector<std::string>> verbs = {
            {"imageinfo", image, "-plist", "-stdinpass"},
            {"attach", image, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass"},
            {"attach", image, "-plist", "-stdinpass", "-nomount"},
            {"compact", "-stdinpass", image},
            {"resize", "-limits", "-stdinpass", image},
            {"resize", "-stdinpass", "-size", "96m", image},
        };
        for (const auto& args : verbs) {
            CommandResult r = box.qvImage(args, password);
            expectFailure(r, code, what + " / " + args[0] + " " + args[1] + " " + args[2]);
            EXPECT_FALSE(isMountPoint(mnt));
            EXPECT_TRUE(listDirectory(mnt).empty());
        }
    }

    static ImageSandbox* suite_;
    static std::string good_;
    static std::string goodError_;
    ImageSandbox box;
};
ImageSandbox* ImageBadInputTest::suite_ = nullptr;
std::string ImageBadInputTest::good_;
std::string ImageBadInputTest::goodError_;

TEST_F(ImageBadInputTest, DamagedImagesAreRefusedAndLeftAlone) {
    const std::string junk = patternBytes(66, 3000) + "<plist><dict>";
    struct Damage {
        std::string what;
        std::function<void(const std::string&)> apply;
    };
    auto both = [](const std::function<void(const std::string&)>& f) {
        return [f](const std::string& image) {
            f(image + "/Info.plist");
            f(image + "/Info.bckup");
        };
    };
    // Replaces the value that follows <key>name</key> in a property list's text.
    auto setField = [](const std::string& key, const std::string& value) {
        return [key, value](const std::string& p) {
            std::string text = readFile(p);
            const std::string tag = "<key>" + key + "</key>";
            size_t at = text.find(tag);
            ASSERT_NE(at, std::string::npos) << key << " not in " << text;
            size_t from = text.find('<', at + tag.size());
            size_t close = text.find('>', text.find("</", from));
            text.replace(from, close + 1 - from, value);
            writeBytes(p, text);
        };
    };
    auto truncateHalf = [](const std::string& p) { fs::resize_file(p, fs::file_size(p) / 2); };
    const std::vector<Damage> damages = {
        {"garbage in both property lists", both([&](const std::string& p) { writeBytes(p, junk); })},
        {"both property lists truncated", both(truncateHalf)},
        {"both property lists empty", both([](const std::string& p) { writeBytes(p, ""); })},
        {"both property lists missing", both([](const std::string& p) { fs::remove(p); })},
        {"property lists of the wrong shape",
         both([](const std::string& p) {
             writeBytes(p, "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><integer>1</integer></array></plist>");
         })},
        {"unknown format version", both(setField("format-version", "<integer>2</integer>"))},
        {"band size of zero", both(setField("band-size", "<integer>0</integer>"))},
        {"disk size of zero", both(setField("size", "<integer>0</integer>"))},
        {"disk size not whole sectors", both(setField("size", "<integer>67108865</integer>"))},
        {"disk size beyond reason", both(setField("size", "<integer>-4096</integer>"))},
        {"unknown encryption", both(setField("encryption", "<string>ROT13</string>"))},
        {"garbage token", [&](const std::string& i) { writeBytes(i + "/token", junk); }},
        {"truncated token", [&](const std::string& i) { truncateHalf(i + "/token"); }},
        {"missing token", [](const std::string& i) { fs::remove(i + "/token"); }},
        {"missing bands", [](const std::string& i) { fs::remove_all(i + "/bands"); }},
        {"bands is a file", [](const std::string& i) { fs::remove_all(i + "/bands"); writeBytes(i + "/bands", "x"); }},
    };
    int n = 0;
    for (const auto& d : damages) {
        SCOPED_TRACE(d.what);
        const std::string image = copyOfGood("damaged" + std::to_string(n++) + ".sparsebundle");
        d.apply(image);
        const TreeSnapshot before = snapshotTree(image);
        expectEveryVerbFails(image, NotAnImage, d.what);
        EXPECT_EQ(diffSnapshots(before, snapshotTree(image)), "");
    }

    // Not an image at all.
    const std::string file = box.path("plain-file");
    writeBytes(file, "just a file");
    expectEveryVerbFails(file, NotAnImage, "a plain file");
    EXPECT_EQ(readFile(file), "just a file");
    expectEveryVerbFails(box.path("nothing-here.sparsebundle"), NotAnImage, "a missing path");
    const std::string emptyDir = box.makeDir("empty.sparsebundle");
    expectEveryVerbFails(emptyDir, NotAnImage, "an empty directory");
    EXPECT_TRUE(listDirectory(emptyDir).empty());
}

TEST_F(ImageBadInputTest, OneDamagedPropertyListIsMadeUpForByItsCopy) {
    for (const char* damaged : {"Info.plist", "Info.bckup"}) {
        SCOPED_TRACE(damaged);
        const std::string image = copyOfGood(std::string("half-") + damaged);
        writeBytes(image + "/" + damaged, "not a property list");
        CommandResult r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, kPassword);
        EXPECT_EQ(r.exitCode, 0) << r.describe();
        const std::string mnt = box.makeDir(std::string("mnt-") + damaged);
        r = box.attach(image, mnt, kPassword);
        EXPECT_EQ(r.exitCode, 0) << r.describe();
        EXPECT_TRUE(isMountPoint(mnt));
        EXPECT_EQ(box.detach(mnt).exitCode, 0);
    }
}

TEST_F(ImageBadInputTest, WrongPasswordChangesNothing) {
    const std::string image = copyOfGood("locked.sparsebundle");
    const TreeSnapshot before = snapshotTree(image);
    const std::vector<std::string> wrongOnes = {"wrong-password", kPassword + "\n", kPassword.substr(1),
                                                std::string("\0", 1)};
    for (const std::string& wrong : wrongOnes) {
        SCOPED_TRACE(::testing::PrintToString(wrong));
        CommandResult r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, wrong);
        expectFailure(r, WrongPassword, "imageinfo");
    }
    expectEveryVerbFails(image, WrongPassword, "wrong password", "not-the-password");
    EXPECT_EQ(diffSnapshots(before, snapshotTree(image)), "");

    // The right one still opens it.
    CommandResult r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, kPassword);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
}

TEST_F(ImageBadInputTest, PasswordIsTheRawBytesOfStandardInput) {
    // A trailing newline belongs to the password.
    const std::string image = box.path("newline.sparsebundle");
    CommandResult r = box.create(image, "with newline\n", 64);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    expectFailure(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, "with newline"), WrongPassword,
                  "without the newline");
    EXPECT_EQ(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, "with newline\n").exitCode, 0);

    // Empty input is refused, for a new image and for an existing one.
    const std::string fresh = box.path("empty-password.sparsebundle");
    expectFailure(box.create(fresh, "", 64), Usage, "create with an empty password");
    EXPECT_FALSE(fs::exists(fresh));
    const TreeSnapshot before = snapshotTree(good_);
    expectFailure(box.qvImage({"imageinfo", good_, "-plist", "-stdinpass"}, ""), Usage, "imageinfo, empty password");
    const std::string mnt = box.makeDir("mnt");
    expectFailure(box.attach(good_, mnt, ""), Usage, "attach, empty password");
    EXPECT_EQ(diffSnapshots(before, snapshotTree(good_)), "");
}

TEST_F(ImageBadInputTest, UsageErrorsAndAbsurdSizesCreateAndDestroyNothing) {
    // An existing image that a bad create -ov must not replace.
    const std::string existing = copyOfGood("existing.sparsebundle");
    const TreeSnapshot before = snapshotTree(existing);
    const std::string fresh = box.path("fresh.sparsebundle");
    auto createArgs = [](const std::string& size, const std::string& image, const std::string& enc = "AES-256",
                         const std::string& type = "SPARSEBUNDLE", const std::string& fsName = "HFS+J") {
        return std::vector<std::string>{"create", "-encryption", enc, "-stdinpass", "-size", size,
                                        "-type", type, "-volname", "V", "-fs", fsName, "-ov", image};
    };
    for (const std::string size : {"0m", "-5m", "99999999999999m", "abc", "", "12x", "5.5m", "0x10m", "15m", "17t"}) {
        for (const std::string& image : {existing, fresh}) {
            CommandResult r = box.qvImage(createArgs(size, image), kPassword);
            expectFailure(r, Usage, "create -size \"" + size + "\"");
        }
    }
    expectFailure(box.qvImage(createArgs("64m", fresh, "AES-512"), kPassword), Usage, "unknown encryption");
    expectFailure(box.qvImage(createArgs("64m", existing, "AES-512"), kPassword), Usage, "unknown encryption");
    expectFailure(box.qvImage(createArgs("64m", fresh, "AES-256", "UDIF"), kPassword), Usage, "unknown type");
    expectFailure(box.qvImage(createArgs("64m", fresh, "AES-256", "SPARSEBUNDLE", "FAT32"), kPassword), Usage,
                  "unknown file system");
    auto truncated = createArgs("64m", fresh);
    truncated.resize(6);
    expectFailure(box.qvImage(truncated, kPassword), Usage, "create without its last arguments");
    EXPECT_FALSE(fs::exists(fresh)) << "a refused create left something behind";
    EXPECT_EQ(diffSnapshots(before, snapshotTree(existing)), "");

    // create never replaces what is not an image, and without -ov not even an image.
    const std::string file = box.path("precious.txt");
    writeBytes(file, "precious");
    const std::string folder = box.makeDir("precious-folder");
    writeBytes(folder + "/inside.txt", "also precious");
    for (const std::string& target : {file, folder}) {
        const TreeSnapshot was = snapshotTree(target);
        expectFailure(box.qvImage(createArgs("64m", target), kPassword), Failure, "create -ov over " + target);
        EXPECT_EQ(diffSnapshots(was, snapshotTree(target)), "");
    }
    auto withoutOv = createArgs("64m", existing);
    withoutOv.erase(withoutOv.end() - 2);
    expectFailure(box.qvImage(withoutOv, kPassword), Failure, "create without -ov over an image");
    EXPECT_EQ(diffSnapshots(before, snapshotTree(existing)), "");

    for (const std::string size : {"0", "abc", "-5m", "99999999999999m", "", "1.5g", "15m", "17g0"}) {
        CommandResult r = box.qvImage({"resize", "-stdinpass", "-size", size, existing}, kPassword);
        expectFailure(r, Usage, "resize -size \"" + size + "\"");
    }
    EXPECT_EQ(diffSnapshots(before, snapshotTree(existing)), "");

    const std::string mnt = box.makeDir("mnt");
    const std::vector<std::vector<std::string>> nonsense = {
        {},
        {"frobnicate", existing},
        {"ATTACH", existing, "-mountpoint", mnt, "-stdinpass"},
        {"attach", existing, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass", "-bogus"},
        {"attach", existing, "-mountpoint"},
        {"attach"},
        {"detach"},
        {"imageinfo"},
        {"compact"},
        {"resize", "-stdinpass", existing},
        {"-layer", "zfs", "imageinfo", existing, "-plist", "-stdinpass"},
    };
    for (const auto& args : nonsense) {
        std::string what = "qv-image";
        for (const auto& a : args) what += " " + a;
        expectFailure(box.qvImage(args, kPassword), Usage, what);
        EXPECT_FALSE(isMountPoint(mnt)) << what;
    }
    EXPECT_EQ(diffSnapshots(before, snapshotTree(existing)), "");
}

TEST_F(ImageBadInputTest, AttachRefusesUnfitMountPointsAndSecondAttach) {
    const std::string image = copyOfGood("target.sparsebundle");
    const TreeSnapshot before = snapshotTree(image);

    expectFailure(box.attach(image, box.path("no-such-dir"), kPassword), BadMountPoint, "missing mount point");
    EXPECT_FALSE(fs::exists(box.path("no-such-dir")));
    const std::string full = box.makeDir("full");
    writeBytes(full + "/mine.txt", "user data");
    expectFailure(box.attach(image, full, kPassword), BadMountPoint, "non-empty mount point");
    EXPECT_EQ(readFile(full + "/mine.txt"), "user data");
    EXPECT_FALSE(isMountPoint(full));
    const std::string file = box.path("a-file");
    writeBytes(file, "x");
    expectFailure(box.attach(image, file, kPassword), BadMountPoint, "mount point is a file");
    EXPECT_EQ(diffSnapshots(before, snapshotTree(image)), "");

    const std::string first = box.makeDir("first");
    ASSERT_EQ(box.attach(image, first, kPassword).exitCode, 0);
    const std::string second = box.makeDir("second");
    expectFailure(box.attach(image, second, kPassword), Attached, "second attach on another folder");
    expectFailure(box.attach(image, first, kPassword), Attached, "second attach on the same folder");
    std::string dev;
    expectFailure(box.attachNoMount(image, kPassword, &dev), Attached, "second attach without mount");
    EXPECT_FALSE(isMountPoint(second));
    EXPECT_TRUE(isMountPoint(first));
    // Another image on a folder that is already a mount point.
    const std::string other = copyOfGood("other.sparsebundle");
    expectFailure(box.attach(other, first, kPassword), BadMountPoint, "mount point already in use");
    EXPECT_EQ(box.detach(first).exitCode, 0);

    // Detach of something that is not attached.
    expectFailure(box.detach(first), Failure, "detach of a plain folder");
    expectFailure(box.detach(box.path("nowhere")), Failure, "detach of a missing path");
    expectFailure(box.detach(image), Failure, "detach of an image path");
}

} // namespace

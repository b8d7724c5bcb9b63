// Bad input of every kind: damaged images, wrong passwords, absurd sizes,
// unknown verbs and refused mount points. Each must end in its documented exit
// status with one "qv-image: " line on stderr, never by a signal, and leave
// every file as it was.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "image/ImageTestSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

const std::string kPassword = "bad-input-password";

enum Exit { Failure = 1, Usage = 2, WrongPassword = 3, NotAnImage = 4, Attached = 5, BadMountPoint = 6 };

void expectFailure(const CommandResult& r, int code, const std::string& what) {
    EXPECT_TRUE(r.exited && r.exitCode == code) << what << ": " << r.describe();
    EXPECT_TRUE(r.err.rfind("qv-image: ", 0) == 0 && r.err.size() > 15 && r.err.find('\n') + 1 >= r.err.size())
        << what << ": not one \"qv-image: \" line with a reason: [" << r.err << "]";
    EXPECT_EQ((r.out + r.err).find(kPassword), std::string::npos) << what << ": the password was printed";
}

class ImageBadInputTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (::geteuid() != 0) return;
        suite_ = new ImageSandbox;
        good_ = suite_->createOrFail("good.sparsebundle", kPassword, 64);
    }
    static void TearDownTestSuite() {
        delete suite_;
        suite_ = nullptr;
    }
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
        ASSERT_TRUE(fs::exists(good_ + "/token")) << "no image to work on";
    }
    std::string copyOfGood(const std::string& name) {
        copyTree(good_, box.path(name));
        return box.path(name);
    }
    // Every verb that opens an image fails on it with `code`, mounts nothing and changes nothing.
    void expectEveryVerbFails(const std::string& image, int code, const std::string& what,
                              const std::string& password = kPassword) {
        const std::string mnt = box.makeDir("mnt");
        const TreeSnapshot before = snapshotTree(image);
        for (const auto& args : std::vector<std::vector<std::string>>{
                 {"imageinfo", image, "-plist", "-stdinpass"},
                 {"attach", image, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass"},
                 {"attach", image, "-plist", "-stdinpass", "-nomount"},
                 {"compact", "-stdinpass", image},
                 {"resize", "-stdinpass", "-size", "96m", image}}) {
            expectFailure(box.qvImage(args, password), code, what + " / " + args[0] + " " + args[2]);
            EXPECT_TRUE(listDirectory(mnt).empty() && !isMountPoint(mnt)) << what;
        }
        EXPECT_EQ(diffSnapshots(before, snapshotTree(image)), "") << what;
    }

    static inline ImageSandbox* suite_ = nullptr;
    static inline std::string good_;
    ImageSandbox box;
};

TEST_F(ImageBadInputTest, DamagedImagesAreRefusedAndLeftAlone) {
    using Damage = std::function<void(const std::string&)>;
    auto both = [](const Damage& f) {
        return [f](const std::string& image) { f(image + "/Info.plist"), f(image + "/Info.bckup"); };
    };
    // Replaces the value that follows <key>name</key> in a property list's text.
    auto setField = [](const std::string& key, const std::string& value) {
        return [key, value](const std::string& p) {
            std::string text = readFile(p);
            const size_t at = text.find("<key>" + key + "</key>");
            ASSERT_NE(at, std::string::npos) << key << " not in " << text;
            const size_t from = text.find('<', at + key.size() + 11), close = text.find('>', text.find("</", from));
            writeFileSynced(p, text.replace(from, close + 1 - from, value));
        };
    };
    const std::string junk = patternBytes(66, 3000) + "<plist><dict>";
    const std::vector<std::pair<std::string, Damage>> damages = {
        {"garbage in both property lists", both([&](const std::string& p) { writeFileSynced(p, junk); })},
        {"both property lists missing", both([](const std::string& p) { fs::remove(p); })},
        {"unknown format version", both(setField("format-version", "<integer>2</integer>"))},
        {"band size of zero", both(setField("band-size", "<integer>0</integer>"))},
        {"disk size not whole sectors", both(setField("size", "<integer>67108865</integer>"))},
        {"negative disk size", both(setField("size", "<integer>-4096</integer>"))},
        {"unknown encryption", both(setField("encryption", "<string>ROT13</string>"))},
        {"garbage token", [&](const std::string& i) { writeFileSynced(i + "/token", junk); }},
        {"missing token", [](const std::string& i) { fs::remove(i + "/token"); }},
        {"bands is a file", [](const std::string& i) { fs::remove_all(i + "/bands"), writeFileSynced(i + "/bands", "x"); }},
    };
    for (size_t n = 0; n < damages.size(); ++n) {
        const std::string image = copyOfGood("damaged" + std::to_string(n) + ".sparsebundle");
        damages[n].second(image);
        expectEveryVerbFails(image, NotAnImage, damages[n].first);
    }
    // Not an image at all.
    writeFileSynced(box.path("plain-file"), "just a file");
    expectEveryVerbFails(box.path("plain-file"), NotAnImage, "a plain file");
    expectEveryVerbFails(box.path("nothing-here.sparsebundle"), NotAnImage, "a missing path");
    expectEveryVerbFails(box.makeDir("empty.sparsebundle"), NotAnImage, "an empty directory");

    // One damaged property list is made up for by its copy.
    for (const std::string damaged : {"Info.plist", "Info.bckup"}) {
        const std::string image = copyOfGood("half-" + damaged), mnt = box.makeDir("mnt-" + damaged);
        writeFileSynced(image + "/" + damaged, "not a property list");
        EXPECT_EQ(box.attach(image, mnt, kPassword).exitCode, 0) << damaged;
        EXPECT_EQ(box.detach(mnt).exitCode, 0) << damaged;
    }
}

TEST_F(ImageBadInputTest, OnlyTheExactPasswordBytesOpenAndWrongOnesChangeNothing) {
    const std::string image = copyOfGood("locked.sparsebundle");
    for (const std::string& wrong : {kPassword + "\n", kPassword.substr(1), std::string("\0", 1)})
        expectFailure(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, wrong), WrongPassword,
                      ::testing::PrintToString(wrong));
    expectEveryVerbFails(image, WrongPassword, "wrong password", "not-the-password");
    EXPECT_EQ(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, kPassword).exitCode, 0);

    // A trailing newline belongs to the password.
    const std::string newline = box.path("newline.sparsebundle");
    ASSERT_EQ(box.create(newline, "with newline\n", 64).exitCode, 0);
    expectFailure(box.qvImage({"imageinfo", newline, "-plist", "-stdinpass"}, "with newline"), WrongPassword,
                  "without the newline");
    EXPECT_EQ(box.qvImage({"imageinfo", newline, "-plist", "-stdinpass"}, "with newline\n").exitCode, 0);

    // Empty input is refused, for a new image and for an existing one.
    expectFailure(box.create(box.path("empty.sparsebundle"), "", 64), Usage, "create with an empty password");
    EXPECT_FALSE(fs::exists(box.path("empty.sparsebundle")));
    expectFailure(box.attach(image, box.makeDir("mnt"), ""), Usage, "attach with an empty password");
}

TEST_F(ImageBadInputTest, UsageErrorsAndAbsurdSizesCreateAndDestroyNothing) {
    const std::string existing = copyOfGood("existing.sparsebundle"), fresh = box.path("fresh.sparsebundle");
    const TreeSnapshot before = snapshotTree(existing);
    auto createArgs = [](const std::string& size, const std::string& image, const std::string& enc = "AES-256",
                         const std::string& type = "SPARSEBUNDLE", const std::string& fsName = "HFS+J") {
        return std::vector<std::string>{"create", "-encryption", enc, "-stdinpass", "-size", size,
                                        "-type", type, "-volname", "V", "-fs", fsName, "-ov", image};
    };
    // Below the floor, above the ceiling, overflowing, negative, not a size.
    for (const std::string size : {"15m", "17t", "99999999999999m", "-5m", "5.5m", "abc"})
        for (const std::string& image : {existing, fresh})
            expectFailure(box.qvImage(createArgs(size, image), kPassword), Usage, "create -size " + size);
    expectFailure(box.qvImage(createArgs("64m", existing, "AES-512"), kPassword), Usage, "unknown encryption");
    expectFailure(box.qvImage(createArgs("64m", fresh, "AES-256", "UDIF"), kPassword), Usage, "unknown type");
    expectFailure(box.qvImage(createArgs("64m", fresh, "AES-256", "SPARSEBUNDLE", "FAT32"), kPassword), Usage,
                  "unknown file system");
    EXPECT_FALSE(fs::exists(fresh)) << "a refused create left something behind";

    // create never replaces what is not an image, and without -ov not even an image.
    const std::string file = box.path("precious.txt"), folder = box.makeDir("precious-folder");
    writeFileSynced(file, "precious");
    writeFileSynced(folder + "/inside.txt", "also precious");
    for (const std::string& target : {file, folder}) {
        const TreeSnapshot was = snapshotTree(target);
        expectFailure(box.qvImage(createArgs("64m", target), kPassword), Failure, "create -ov over " + target);
        EXPECT_EQ(diffSnapshots(was, snapshotTree(target)), "");
    }
    auto withoutOv = createArgs("64m", existing);
    withoutOv.erase(withoutOv.end() - 2);
    expectFailure(box.qvImage(withoutOv, kPassword), Failure, "create without -ov over an image");

    expectFailure(box.qvImage({"resize", "-stdinpass", "-size", "15m", existing}, kPassword), Usage, "resize -size 15m");
    const std::string mnt = box.makeDir("mnt");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {},
             {"detach"},
             {"ATTACH", existing, "-mountpoint", mnt, "-stdinpass"},
             {"attach", existing, "-mountpoint", mnt, "-noverify", "-noautofsck", "-stdinpass", "-bogus"},
             {"attach", existing, "-mountpoint"},
             {"-layer", "zfs", "imageinfo", existing, "-plist", "-stdinpass"}})
        expectFailure(box.qvImage(args, kPassword), Usage, ::testing::PrintToString(args));
    EXPECT_FALSE(isMountPoint(mnt));
    EXPECT_EQ(diffSnapshots(before, snapshotTree(existing)), "");
}

TEST_F(ImageBadInputTest, AttachRefusesUnfitMountPointsAndASecondAttach) {
    const std::string image = copyOfGood("target.sparsebundle");
    const std::string full = box.makeDir("full"), file = box.path("a-file");
    writeFileSynced(full + "/mine.txt", "user data");
    writeFileSynced(file, "x");
    for (const std::string& unfit : {box.path("no-such-dir"), full, file})
        expectFailure(box.attach(image, unfit, kPassword), BadMountPoint, unfit);
    EXPECT_FALSE(fs::exists(box.path("no-such-dir")));
    EXPECT_FALSE(isMountPoint(full));
    EXPECT_EQ(readFile(full + "/mine.txt"), "user data");

    const std::string first = box.makeDir("first"), second = box.makeDir("second");
    ASSERT_EQ(box.attach(image, first, kPassword).exitCode, 0);
    expectFailure(box.attach(image, second, kPassword), Attached, "second attach on another folder");
    expectFailure(box.attach(image, first, kPassword), Attached, "second attach on the same folder");
    std::string dev;
    expectFailure(box.attachNoMount(image, kPassword, &dev), Attached, "second attach without mount");
    EXPECT_FALSE(isMountPoint(second));
    expectFailure(box.attach(copyOfGood("other.sparsebundle"), first, kPassword), BadMountPoint, "a folder in use");
    EXPECT_EQ(box.detach(first).exitCode, 0);
    for (const std::string& target : {first, box.path("nowhere"), image})
        expectFailure(box.detach(target), Failure, "detach of " + target);
}

} // namespace

// The copy and move engine against a tree with everything a folder can hold,
// compared entry by entry; lifting into a volume-like folder; cancelling;
// moves by rename; inputs it must refuse.
#include <gtest/gtest.h>

#include <acl/libacl.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "disk/CopyEngine.h"
#include "disk/SizeWalk.h"
#include "disk/TreeCompare.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;
using qv::test::readWhole;

std::string diffs(const std::string& expected, const std::string& actual, const qv::test::CompareOptions& o = {}) {
    std::string out;
    for (const auto& l : qv::test::compareTrees(expected, actual, o)) out += l + "\n";
    return out;
}

void writeBytes(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << bytes;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

std::string randomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

void setTimes(const std::string& path, time_t sec, long nsec) {
    const struct timespec times[2] = {{sec + 100, 0}, {sec, nsec}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

// Removes a tree even where the copy made folders read-only.
void forceRemove(const std::string& path) {
    std::error_code ec;
    for (const auto& e : fs::recursive_directory_iterator(path, fs::directory_options::skip_permission_denied, ec))
        if (e.is_directory(ec) && !e.is_symlink(ec))
            fs::permissions(e.path(), fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(path, ec);
}

// Status calls after every step for the length of a test.
struct EveryStepStatus {
    EveryStepStatus() { qv::QVCopySetStatusInterval(std::chrono::milliseconds(0)); }
    ~EveryStepStatus() { qv::QVCopySetStatusInterval(std::chrono::milliseconds(1000)); }
};

class CopyEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        base = qv::test::makeTempDir("qvcopy");
        src = base + "/Folder";
        fs::create_directories(src);
    }
    void TearDown() override { forceRemove(base); }

    // Everything a folder may hold.
    void buildNastyTree() {
        fs::create_directories(src + "/a/b/c");
        fs::create_directories(src + "/empty");
        std::string deep = src + "/deep";
        for (int i = 0; i < 40; ++i) deep += "/level" + std::to_string(i);
        fs::create_directories(deep);
        writeBytes(deep + "/bottom", "at the bottom");

        writeBytes(src + "/empty-file", "");
        writeBytes(src + "/one-byte", "x");
        writeBytes(src + "/a/random", randomBytes(300000, 1), 0640);
        writeBytes(src + "/a/b/script.sh", "#!/bin/sh\necho hi\n", 0755);
        writeBytes(src + "/read-only", "can't touch this", 0600);  // 0400 once its attribute is set
        setTimes(src + "/a/random", 1000000000, 123456789);
        // Odd names: newline, bytes that are not UTF-8, shell characters, a leading dash.
        for (const char* odd : {"/new\nline", "/\xff\xfe-not-utf8", "/*?[glob] $HOME", "/-rf"}) writeBytes(src + odd, "o");

        // Hard links: three names inside, and one file whose other name is outside.
        writeBytes(src + "/a/linked", randomBytes(70000, 2));
        fs::create_hard_link(src + "/a/linked", src + "/a/b/linked-again");
        fs::create_hard_link(src + "/a/linked", src + "/linked-third");
        writeBytes(src + "/half-linked", "one name in, one out");
        fs::create_hard_link(src + "/half-linked", base + "/outside-name");

        fs::create_symlink("a/b", src + "/link-to-dir");
        fs::create_symlink("/nowhere/at/all", src + "/dangling");
        fs::create_symlink("odd\ntarget", src + "/a/odd-link");

        {  // A sparse file: 16 MiB with two small islands of data.
            std::ofstream sparse(src + "/sparse", std::ios::binary);
            sparse << randomBytes(8192, 3) << std::flush;
            sparse.seekp(8 << 20) << randomBytes(8192, 4);
        }
        fs::resize_file(src + "/sparse", 16 << 20);
        ASSERT_EQ(::mkfifo((src + "/a/fifo").c_str(), 0620), 0);

        if (::setxattr(base.c_str(), "user.probe", "1", 1, 0) == 0) {
            const std::string binary("\0\x01\xff value", 9);
            ASSERT_EQ(::setxattr((src + "/a/random").c_str(), "user.comment", binary.data(), binary.size(), 0), 0);
            ASSERT_EQ(::setxattr((src + "/a").c_str(), "user.folder", "yes", 3, 0), 0);
        }
        auto setAcl = [](const std::string& path, acl_type_t type, const char* text) {
            acl_t acl = ::acl_from_text(text);
            EXPECT_EQ(::acl_set_file(path.c_str(), type, acl), 0) << path;
            ::acl_free(acl);
        };
        if (::acl_extended_file(base.c_str()) >= 0) {
            setAcl(src + "/one-byte", ACL_TYPE_ACCESS, "u::rw-,u:65534:r--,g::r--,m::r--,o::---");
            setAcl(src + "/a/b", ACL_TYPE_DEFAULT, "u::rwx,u:65534:rwx,g::r-x,m::rwx,o::---");
        }
        if (::geteuid() == 0) {
            ASSERT_EQ(::lchown((src + "/a/b/script.sh").c_str(), 65534, 65534), 0);
            ASSERT_EQ(::lchown((src + "/dangling").c_str(), 65534, 65534), 0);
            ASSERT_EQ(::chmod((src + "/a/b/script.sh").c_str(), 04755), 0) << "set-id bits survive a change of owner";
        }
        ::chmod((src + "/read-only").c_str(), 0400);
        // A read-only folder with something in it; times set last, as nothing changes them after.
        writeBytes(src + "/a/b/c/inside-read-only", "r");
        setTimes(src + "/a/b/c", 1200000000, 5);
        ::chmod((src + "/a/b/c").c_str(), 0555);
        setTimes(src + "/link-to-dir", 1300000000, 7);
    }

    std::string base;
    std::string src;
};

// The comparison covers modes, owners, times, attributes, ACLs, link targets,
// hard-link groups and holes.
TEST_F(CopyEngineTest, CopyKeepsEveryKindOfEntry) {
    buildNastyTree();
    const std::string dst = base + "/Copy";
    qv::QVError error;
    ASSERT_TRUE(qv::copyContentsFrom(src, base, "Copy", qv::QVFileOperationSkipPreflight, false, nullptr, &error))
        << error.description;
    EXPECT_TRUE(error.empty());
    // Before anything reads the copy and moves its access time on.
    struct stat fileTimes;
    ::stat((dst + "/a/random").c_str(), &fileTimes);
    EXPECT_EQ(fileTimes.st_atim.tv_sec, 1000000100) << "access times are kept too";
    EXPECT_EQ(diffs(src, dst, {.owners = true, .rootMetadata = true}), "");
}

TEST_F(CopyEngineTest, ContentsAreLiftedAndVolumeItemsDropped) {
    buildNastyTree();
    // A folder that holds an item of its own name, and what a volume keeps for itself.
    fs::create_directories(src + "/Folder/inner");
    writeBytes(src + "/.DS_Store", "finder junk");
    writeBytes(src + "/.hidden", "lost+found\n");
    fs::create_directories(src + "/lost+found");
    const std::string volume = base + "/Volume";
    fs::create_directories(volume + "/lost+found");
    writeBytes(volume + "/.hidden", "lost+found\n");

    qv::QVError error;
    ASSERT_TRUE(qv::copyContentsFrom(src, volume, qv::QVFileOperationSkipPreflight, nullptr, &error))
        << error.description;
    for (const char* dropped : {"/.DS_Store", "/.hidden", "/lost+found"}) fs::remove_all(src + dropped);
    fs::remove_all(volume + "/lost+found");
    fs::remove(volume + "/.hidden");
    EXPECT_EQ(diffs(src, volume), "") << "everything but the volume's own names arrives, once";
}

TEST_F(CopyEngineTest, ANameTakenAtTheDestinationLeavesThatChildBehind) {
    writeBytes(src + "/taken", "new");
    writeBytes(src + "/free", "free");
    const std::string volume = base + "/Volume";
    fs::create_directories(volume);
    writeBytes(volume + "/taken", "old");

    qv::QVError error;
    EXPECT_FALSE(qv::copyContentsFrom(src, volume, qv::QVFileOperationSkipPreflight, nullptr, &error));
    EXPECT_EQ(error.code, qv::QVErrorPartialRestore);
    EXPECT_EQ(readWhole(volume + "/taken"), "old") << "nothing is overwritten while lifting";
    EXPECT_EQ(readWhole(volume + "/free"), "free");
    // The child that couldn't move is kept in the working folder, not deleted.
    bool kept = false;
    for (const auto& e : fs::directory_iterator(volume))
        if (e.path().filename().string().rfind(".qvcopy-", 0) == 0)
            kept = readWhole(e.path().string() + "/taken") == "new";
    EXPECT_TRUE(kept);
}

TEST_F(CopyEngineTest, StatusReportsAndCancelLeavesOnlyWholeFiles) {
    EveryStepStatus everyStep;
    for (int i = 0; i < 12; ++i) writeBytes(src + "/file" + std::to_string(i), randomBytes(50000 + i, 10 + i));
    const int64_t total = qv::fastFolderSizeAtFSRef(src, nullptr);

    qv::QVCopyStatus last;
    qv::QVError error;
    ASSERT_TRUE(qv::copyContentsFrom(src, base, "Full", 0, false, [&](long, const qv::QVCopyStatus& s) {
        EXPECT_GE(s.bytesCompleted, last.bytesCompleted);
        last = s;
        return false;
    }, &error)) << error.description;
    EXPECT_EQ(last.bytesCompleted, static_cast<uint64_t>(total));
    EXPECT_EQ(last.totalBytes, static_cast<uint64_t>(total)) << "measured beforehand without option 8";

    // Cancelled part way: a partial tree of whole files.
    int calls = 0;
    EXPECT_FALSE(qv::copyContentsFrom(src, base, "Partial", qv::QVFileOperationSkipPreflight, false,
                                      [&](long, const qv::QVCopyStatus&) { return ++calls == 6; }, &error));
    EXPECT_EQ(error.code, qv::QVErrorCancelled);
    size_t copied = 0;
    for (const auto& e : fs::directory_iterator(base + "/Partial")) {
        ++copied;
        EXPECT_EQ(readWhole(e.path().string()), readWhole(src + "/" + e.path().filename().string()));
    }
    EXPECT_GT(copied, 0u);
    EXPECT_LT(copied, 12u);

    // Cancelled inside one large file: that file goes.
    writeBytes(src + "/big", randomBytes(20 << 20, 4));
    for (int i = 0; i < 12; ++i) fs::remove(src + "/file" + std::to_string(i));
    calls = 0;
    EXPECT_FALSE(qv::copyContentsFrom(src, base, "Out", qv::QVFileOperationSkipPreflight, false,
                                      [&](long, const qv::QVCopyStatus&) { return ++calls == 2; }, &error));
    EXPECT_EQ(error.code, qv::QVErrorCancelled);
    EXPECT_FALSE(fs::exists(base + "/Out/big")) << "never a half-copied file";
}

TEST_F(CopyEngineTest, AMoveOnOneFileSystemIsARename) {
    buildNastyTree();
    const std::string reference = base + "/reference";
    ASSERT_TRUE(qv::copyContentsFrom(src, base, "reference", 8, false, nullptr, nullptr));
    qv::QVError error;
    ASSERT_TRUE(qv::moveContentsFrom(src, base, "Moved", 8, nullptr, &error)) << error.description;
    EXPECT_FALSE(fs::exists(src));
    EXPECT_EQ(diffs(reference, base + "/Moved"), "");

    // Across file systems (copy, then remove; a cancel keeps the source) with real images elsewhere.
}

TEST_F(CopyEngineTest, ExistingDestinationsAndBadInputsChangeNothing) {
    writeBytes(src + "/file", "new");
    const std::string existing = base + "/Existing";
    fs::create_directories(existing);
    writeBytes(existing + "/old", "old");
    qv::QVError error;

    EXPECT_FALSE(qv::copyContentsFrom(src, base, "Existing", 8, false, nullptr, &error));
    EXPECT_EQ(error.code, EEXIST);
    EXPECT_NE(error.description.find("Could not copy all of: " + src), std::string::npos) << error.description;
    EXPECT_EQ(readWhole(existing + "/old"), "old");
    ASSERT_TRUE(qv::copyContentsFrom(src, base, "Existing", 8 | qv::QVFileOperationOverwrite, false, nullptr, &error));
    EXPECT_FALSE(fs::exists(existing + "/old"));
    EXPECT_EQ(readWhole(existing + "/file"), "new");

    EXPECT_FALSE(qv::copyContentsFrom(base + "/missing", base, 8, nullptr, &error));
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_FALSE(qv::copyContentsFrom(src, base, "a/b", 8, false, nullptr, &error));
    EXPECT_EQ(error.code, EINVAL);
    // A folder into itself would never end.
    fs::create_directories(src + "/sub");
    EXPECT_FALSE(qv::copyContentsFrom(src, src + "/sub", 8, nullptr, &error));
    EXPECT_EQ(error.code, EINVAL);
    EXPECT_TRUE(fs::is_empty(src + "/sub"));
}

} // namespace

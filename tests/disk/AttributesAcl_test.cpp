// Extended attributes and ACL helpers on files in a temporary directory. The
// ACL entries name uid/gid 65534 (nobody/nogroup), which need not be us.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "disk/Acl.h"
#include "disk/ExtendedAttributes.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"

namespace {

using qv::test::LogCapture;

namespace fs = std::filesystem;

size_t countOf(const std::string& haystack, const std::string& needle) {
    size_t n = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) ++n;
    return n;
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

class AttributesTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = qv::test::makeTempDir("qvattr");
        file = dir + "/file";
        std::ofstream(file) << "content";
        fs::permissions(file, fs::perms(0640));
    }
    void TearDown() override { fs::remove_all(dir); }
    bool userXattrsWork() { return ::setxattr(file.c_str(), "user.probe", "1", 1, 0) == 0; }
    std::string dir;
    std::string file;
};

TEST_F(AttributesTest, ExtendedAttributesRoundTrip) {
    if (!userXattrsWork()) GTEST_SKIP() << "no user extended attributes on this file system";
    ASSERT_EQ(::removexattr(file.c_str(), "user.probe"), 0);
    auto names = qv::xattrNamesAtPath(file);
    ASSERT_TRUE(names.has_value());
    EXPECT_TRUE(names->empty());

    const std::vector<uint8_t> binary{0, 1, 2, 0xff, 0};
    EXPECT_EQ(qv::setData(binary, "user.binary", file), 0);
    EXPECT_EQ(qv::setData({'t', 'e', 'x', 't'}, "user.text", file), 0);
    names = qv::xattrNamesAtPath(file);
    ASSERT_TRUE(names.has_value());
    EXPECT_EQ(*names, (std::vector<std::string>{"user.binary", "user.text"}));
    EXPECT_EQ(qv::xattrDataForName("user.binary", file).value_or(std::vector<uint8_t>{}), binary);

    LogCapture log;
    EXPECT_FALSE(qv::xattrDataForName("user.absent", file).has_value());
    EXPECT_TRUE(log.lines.empty()) << "a missing attribute is no error worth a log line";
    EXPECT_EQ(qv::setData({}, "user.empty", file), 0);
    EXPECT_FALSE(qv::xattrDataForName("user.empty", file).has_value()) << "an empty value reads as none";

    EXPECT_EQ(qv::setData(binary, "user.x", dir + "/missing"), ENOENT);
    EXPECT_NE(qv::setData(binary, "bogus-namespace.x", file), 0);
    EXPECT_FALSE(qv::xattrNamesAtPath(dir + "/missing").has_value());
    EXPECT_GE(log.lines.size(), 3u);
}

TEST_F(AttributesTest, AddAndRemoveNamedEntries) {
    const mode_t before = modeOf(file);
    EXPECT_FALSE(qv::fileHasACLs(file));
    if (qv::addACL("u:65534:rw-", file) != 0) GTEST_SKIP() << "no ACLs on this file system";
    EXPECT_TRUE(qv::fileHasACLs(file));
    EXPECT_TRUE(qv::fileHasACLs(file, ACL_READ | ACL_WRITE, ACL_USER));
    EXPECT_FALSE(qv::fileHasACLs(file, ACL_EXECUTE, ACL_USER));

    // Adding for the same user again changes that entry, it doesn't add a second one.
    ASSERT_EQ(qv::addACL("user:65534:r-x,g:65534:r--", file), 0);
    std::string text = qv::aclsForFileAtPath(file).text();
    EXPECT_EQ(countOf(text, "user:nobody:") + countOf(text, "user:65534:"), 1u) << text;
    EXPECT_TRUE(qv::fileHasACLs(file, ACL_EXECUTE, ACL_USER));
    EXPECT_TRUE(qv::fileHasACLs(file, ACL_READ, ACL_GROUP));
    EXPECT_NE(text.find("mask::"), std::string::npos) << "named entries need a mask";

    // Remove by permission and tag: the group entry holds no execute, so it stays.
    LogCapture log;
    EXPECT_EQ(qv::removeACLsAtPath(file, ACL_EXECUTE, ACL_USER), 0);
    EXPECT_FALSE(qv::fileHasACLs(file, ACL_READ, ACL_USER));
    EXPECT_TRUE(qv::fileHasACLs(file, ACL_READ, ACL_GROUP));
    ASSERT_FALSE(log.lines.empty());
    EXPECT_EQ(log.lines[0], "INFO: removing ACL (1|2) from: " + file);

    // Remove by naming the entry; the last named one gone, the file is back to its mode.
    EXPECT_EQ(qv::removeACL("g:65534:---", file), 0);
    EXPECT_FALSE(qv::fileHasACLs(file));
    EXPECT_EQ(modeOf(file), before);
    EXPECT_EQ(qv::removeACL("g:65534:---", file), ENOENT);
}

TEST_F(AttributesTest, BadInputChangesNothing) {
    const std::string before = qv::aclsForFileAtPath(file).text();
    ASSERT_FALSE(before.empty());
    LogCapture log;
    EXPECT_EQ(qv::addACL("this is no acl", file), EINVAL);
    EXPECT_EQ(qv::removeACL("nonsense", file), EINVAL);
    EXPECT_NE(qv::addACL("u:65534:rw-", dir + "/missing"), 0);
    EXPECT_EQ(qv::aclsForFileAtPath(file).text(), before);
    EXPECT_EQ(qv::removeACLsAtPath(file, ACL_READ, ACL_USER_OBJ), 0) << "the owner's entry can't be removed";
    EXPECT_EQ(qv::aclsForFileAtPath(file).text(), before);

    fs::create_symlink("file", dir + "/link");
    const size_t logged = log.lines.size();
    EXPECT_FALSE(qv::aclsForFileAtPath(dir + "/link"));
    EXPECT_EQ(log.lines.size(), logged) << "a link has no ACL of its own, and that is no error";
    EXPECT_FALSE(qv::aclsForFileAtPath(dir + "/missing"));
    EXPECT_EQ(log.lines.size(), logged + 1);
}

} // namespace

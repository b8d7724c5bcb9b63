// Extended attributes and ACL helpers on files in a temporary directory. The
// ACL entries name uid/gid 65534 (nobody/nogroup), which need not be us.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>
#include <fstream>

#include "disk/Acl.h"
#include "disk/ExtendedAttributes.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

class AttributesTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = qv::test::makeTempDir("qvattr");
        file = dir + "/file";
        std::ofstream(file) << "content";
        fs::permissions(file, fs::perms(0640));
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
    std::string file;
};

TEST_F(AttributesTest, ExtendedAttributesRoundTrip) {
    if (::setxattr(file.c_str(), "user.probe", "1", 1, 0) != 0) GTEST_SKIP() << "no user extended attributes here";
    ASSERT_EQ(::removexattr(file.c_str(), "user.probe"), 0);
    const std::vector<uint8_t> binary{0, 1, 2, 0xff, 0};
    EXPECT_EQ(qv::setData(binary, "user.binary", file), 0);
    EXPECT_EQ(qv::setData({'t', 'e', 'x', 't'}, "user.text", file), 0);
    EXPECT_EQ(qv::xattrNamesAtPath(file).value_or(std::vector<std::string>{}),
              (std::vector<std::string>{"user.binary", "user.text"}));
    EXPECT_EQ(qv::xattrDataForName("user.binary", file).value_or(std::vector<uint8_t>{}), binary);
    EXPECT_EQ(qv::setData(binary, "user.x", dir + "/missing"), ENOENT);
    EXPECT_FALSE(qv::xattrNamesAtPath(dir + "/missing").has_value());
}

TEST_F(AttributesTest, AddAndRemoveNamedEntries) {
    struct stat before;
    ::stat(file.c_str(), &before);
    EXPECT_FALSE(qv::fileHasACLs(file));
    if (qv::addACL("u:65534:rw-", file) != 0) GTEST_SKIP() << "no ACLs on this file system";
    // Adding for the same user again changes that entry, it doesn't add a second one.
    ASSERT_EQ(qv::addACL("user:65534:r-x,g:65534:r--", file), 0);
    const std::string text = qv::aclsForFileAtPath(file).text();
    size_t named = 0;
    for (size_t at = text.find("user:"); at != std::string::npos; at = text.find("user:", at + 1))
        named += text.compare(at, 6, "user::") != 0;
    EXPECT_EQ(named, 1u) << text;
    EXPECT_FALSE(qv::fileHasACLs(file, ACL_WRITE, ACL_USER));

    // Remove by permission and tag: the group entry holds no execute, so it stays.
    EXPECT_EQ(qv::removeACLsAtPath(file, ACL_EXECUTE, ACL_USER), 0);
    EXPECT_FALSE(qv::fileHasACLs(file, ACL_READ, ACL_USER));
    EXPECT_TRUE(qv::fileHasACLs(file, ACL_READ, ACL_GROUP));
    // The last named entry gone, the file is back to its mode.
    EXPECT_EQ(qv::removeACL("g:65534:---", file), 0);
    EXPECT_FALSE(qv::fileHasACLs(file));
    struct stat after;
    ::stat(file.c_str(), &after);
    EXPECT_EQ(after.st_mode, before.st_mode);
}

TEST_F(AttributesTest, BadInputChangesNothing) {
    const std::string before = qv::aclsForFileAtPath(file).text();
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(qv::addACL("this is no acl", file), EINVAL);
    EXPECT_EQ(qv::removeACL("nonsense", file), EINVAL);
    EXPECT_EQ(qv::removeACLsAtPath(file, ACL_READ, ACL_USER_OBJ), 0) << "the owner's entry can't be removed";
    EXPECT_EQ(qv::aclsForFileAtPath(file).text(), before);
    fs::create_symlink("file", dir + "/link");
    EXPECT_FALSE(qv::aclsForFileAtPath(dir + "/link")) << "a link has no ACL of its own";
    EXPECT_FALSE(qv::aclsForFileAtPath(dir + "/missing"));
}

} // namespace

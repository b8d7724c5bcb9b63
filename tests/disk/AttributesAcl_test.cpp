// Extended attributes and ACL helpers on files in a temporary directory. The
// ACL entries name uid/gid 65534 (nobody/nogroup), which need not be us.
#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <filesystem>
#include <fstream>

#include "disk/Acl.h"
#include "disk/ExtendedAttributes.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

TEST(AttributesAcl, RoundTripsAndBadInputChangesNothing) {
    const std::string dir = qv::test::makeTempDir("qvattr");
    const std::string file = dir + "/file";
    std::ofstream(file) << "content";
    const std::vector<uint8_t> binary{0, 1, 2, 0xff, 0};
    if (::setxattr(file.c_str(), "user.probe", "1", 1, 0) == 0) {
        EXPECT_EQ(qv::setData(binary, "user.binary", file), 0);
        EXPECT_EQ(qv::xattrDataForName("user.binary", file).value_or(std::vector<uint8_t>{}), binary);
    }
    EXPECT_EQ(qv::setData(binary, "user.x", dir + "/missing"), ENOENT);

    const std::string before = qv::aclsForFileAtPath(file).text();
    if (qv::addACL("u:65534:rw-", file) == 0) {
        EXPECT_TRUE(qv::fileHasACLs(file, ACL_WRITE, ACL_USER));
        EXPECT_EQ(qv::removeACL("u:65534:---", file), 0);
        EXPECT_EQ(qv::aclsForFileAtPath(file).text(), before) << "the last named entry gone, the mode says all";
    }
    EXPECT_EQ(qv::addACL("this is no acl", file), EINVAL);
    EXPECT_EQ(qv::removeACLsAtPath(file, ACL_READ, ACL_USER_OBJ), 0) << "the owner's entry can't be removed";
    EXPECT_EQ(qv::aclsForFileAtPath(file).text(), before);
    fs::create_symlink("file", dir + "/link");
    EXPECT_FALSE(qv::aclsForFileAtPath(dir + "/link")) << "a link has no ACL of its own";
    fs::remove_all(dir);
}

} // namespace

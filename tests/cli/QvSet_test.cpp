// qv's Folder Set commands as a user runs them: passwords on standard input,
// exit codes and output forms as documented, the real production scrypt cost.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/RunProcess.h"
#include "support/TempHome.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

class Qv : public ::testing::Test {
protected:
    ProcessResult qv(const std::vector<std::string>& args, const std::string& input = "") {
        std::vector<std::string> argv{std::string(QV_BINARY_DIR) + "/src/qv"};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProcess(argv, input);
    }
    std::string database() const { return home.dataHome() + "/com.marrowfen.Quillvane3/database3"; }
    TempHome home;
};

} // namespace

TEST_F(Qv, CreateCheckFoldersAndChangeTheSetPassword) {
    auto r = qv({"set", "create"}, "first secret\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(fs::exists(database()));

    EXPECT_EQ(qv({"set", "check"}, "first secret\n").exitCode, 0);
    r = qv({"set", "check"}, "first secreT\n");
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.err.rfind("qv: ", 0), 0u) << r.err;

    r = qv({"folders"}, "first secret\n");
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "") << "a new set has no folders";

    EXPECT_EQ(qv({"set", "create"}, "first secret\n").exitCode, 4) << "a password in use is refused";

    r = qv({"set", "passwd"}, "first secret\nsecond secret\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(qv({"set", "check"}, "first secret\n").exitCode, 3);
    EXPECT_EQ(qv({"set", "check"}, "second secret\n").exitCode, 0);

    ASSERT_EQ(qv({"backup"}).exitCode, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(database()).parent_path() / "Backups"), {}), 1);
}

TEST_F(Qv, RefusesBadUsageEmptyPasswordsAndANewerDatabase) {
    EXPECT_EQ(qv({}).exitCode, 2);
    EXPECT_EQ(qv({"frobnicate"}).exitCode, 2);
    EXPECT_EQ(qv({"set"}).exitCode, 2);
    EXPECT_EQ(qv({"set", "create", "my password"}).exitCode, 2) << "no password on the command line";
    EXPECT_EQ(qv({"--help"}).exitCode, 0);
    EXPECT_EQ(qv({"set", "create"}, "\n").exitCode, 4) << "an empty password";
    EXPECT_EQ(qv({"set", "check"}, "").exitCode, 2) << "no password at all";
    EXPECT_FALSE(fs::exists(database()));

    // A database written by a newer version is refused before any password is read.
    fs::create_directories(fs::path(database()).parent_path());
    const std::string script =
        "import plistlib,sys\n"
        "objs=['$null',{'NS.keys':[plistlib.UID(2)],'NS.objects':[plistlib.UID(3)],'$class':plistlib.UID(4)},"
        "'QVMDBVersionKey',3,{'$classname':'NSMutableDictionary','$classes':['NSMutableDictionary','NSDictionary',"
        "'NSObject']}]\n"
        "d={'$archiver':'NSKeyedArchiver','$version':100000,'$top':{'root':plistlib.UID(1)},'$objects':objs}\n"
        "open(sys.argv[1],'wb').write(plistlib.dumps(d,fmt=plistlib.FMT_BINARY))\n";
    ASSERT_EQ(runProcess({"/usr/bin/python3", "-c", script, database()}, "").exitCode, 0);
    auto r = qv({"set", "check"}, "whatever\n");
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("Invalid database version"), std::string::npos) << r.err;

    // A damaged one gives one clear line and stays as it was.
    fs::resize_file(database(), 20);
    r = qv({"set", "check"}, "whatever\n");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("Failed to unarchive database"), std::string::npos) << r.err;
    EXPECT_EQ(fs::file_size(database()), 20u);
}

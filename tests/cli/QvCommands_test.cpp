// qv's Folder Set and action commands as a user runs them: passwords on
// standard input, exit codes and output forms as documented, the real
// production scrypt cost; chained folders unlock together, refusals keep the
// lists as they were.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/CliSupport.h"
#include "vault/DBMaster.h"
#include "vault/KeyedArchive.h"

namespace fs = std::filesystem;
using namespace qv::test;

TEST(QvSet, CreateCheckFoldersAndChangeTheSetPassword) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "set", "first secret");
    auto r = user.qv({"set", "create"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(user.qv({"set", "check"}).exitCode, 0);
    r = user.qv({"set", "check"}, "first secreT\n");
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_EQ(r.err.rfind("qv: ", 0), 0u) << r.err;
    EXPECT_EQ(user.qv({"folders"}).out, "") << "a new set has no folders";
    EXPECT_EQ(user.qv({"set", "create"}).exitCode, 4) << "a password in use is refused";

    ASSERT_EQ(user.qv({"set", "passwd"}, "first secret\nsecond secret\n").exitCode, 0);
    EXPECT_EQ(user.qv({"set", "check"}).exitCode, 3);
    EXPECT_EQ(user.qv({"set", "check"}, "second secret\n").exitCode, 0);

    ASSERT_EQ(user.qv({"backup"}).exitCode, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(user.data() + "/Backups"), {}), 1);
}

TEST(QvSet, RefusesBadUsageEmptyPasswordsAndANewerDatabase) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "usage", "");
    EXPECT_EQ(user.qv({"frobnicate"}).exitCode, 2);
    EXPECT_EQ(user.qv({"set", "create", "my password"}).exitCode, 2) << "no password on the command line";
    EXPECT_EQ(user.qv({"set", "create"}, "\n").exitCode, 4) << "an empty password";
    EXPECT_EQ(user.qv({"set", "check"}, "").exitCode, 2) << "no password at all";
    const std::string database = user.data() + "/database3";
    EXPECT_FALSE(fs::exists(database));

    // A database written by a newer version is refused before any password is read.
    fs::create_directories(user.data());
    const auto newer = *qv::archivedDataWithRootObject(qv::Value::newDict({{qv::QVMDBVersionKey, qv::Value(3)}}));
    std::ofstream(database, std::ios::binary).write(reinterpret_cast<const char*>(newer.data()), newer.size());
    auto r = user.qv({"set", "check"}, "whatever\n");
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("Invalid database version"), std::string::npos) << r.err;

    // A damaged one gives one clear line and stays as it was.
    fs::resize_file(database, 20);
    r = user.qv({"set", "check"}, "whatever\n");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("Failed to unarchive database"), std::string::npos) << r.err;
    EXPECT_EQ(fs::file_size(database), 20u);
}

TEST(QvActions, ChainedFoldersUnlockTogetherAndCyclesAreRefused) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "actions", "actions password");
    ASSERT_EQ(user.qv({"set", "create"}).exitCode, 0);
    const std::string work = user.home + "/Work", notes = user.home + "/Notes";
    for (const std::string& folder : {work, notes}) {
        fs::create_directories(folder);
        std::ofstream(folder + "/file.txt") << fs::path(folder).filename().string();
        auto r = user.qv({"encrypt", folder});
        ASSERT_EQ(r.exitCode, 0) << r.err;
    }

    auto r = user.qv({"actions", work, "add", "unlock", notes});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "unlock\t1\tUnlock Folder\t" + notes + "\n");
    EXPECT_EQ(user.qv({"actions", work, "add", "unlock", notes}).exitCode, 4) << "already in the list";
    EXPECT_EQ(user.qv({"actions", work, "add", "frob", notes}).exitCode, 2);
    // Locking Work locks Notes; Notes locking Work as well would close a circle.
    ASSERT_EQ(user.qv({"actions", work, "add", "lock", notes}).exitCode, 0);
    r = user.qv({"actions", notes, "add", "lock", work});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("dependency cycle"), std::string::npos) << r.err;
    EXPECT_EQ(user.qv({"actions", notes}).out, "") << "nothing was added";

    // The chain: unlocking Work unlocks Notes; once the action is removed, no more.
    r = user.qv({"unlock", work});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(stateOf(user.qv({"status"}).out, notes), "unlocked");
    r = user.qv({"lock", work});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    r = user.qv({"actions", work, "remove", "unlock", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "lock\t1\tLock Folder\t" + notes + "\n");
    ASSERT_EQ(user.qv({"unlock", work}).exitCode, 0);
    r = user.qv({"status"});
    EXPECT_EQ(stateOf(r.out, notes), "locked") << r.out;
    EXPECT_EQ(stateOf(r.out, work), "unlocked");
}

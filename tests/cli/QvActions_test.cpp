// qv actions as a user runs it: chained folders unlock together, refusals keep
// the lists as they were, and changes are saved at once.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "image/ImageTestSupport.h"
#include "support/RunProcess.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

class QvActions : public ::testing::Test {
protected:
    void SetUp() override {
        home = sandbox.makeDir("home");
        env = {{"HOME", home},
               {"XDG_DATA_HOME", home + "/.local/share"},
               {"XDG_CONFIG_HOME", home + "/.config"},
               {"XDG_RUNTIME_DIR", sandbox.runtimeDir()},
               {"QV_IMAGE_LAYER", "fuse2fs"}};
        ASSERT_EQ(qv({"set", "create"}).exitCode, 0);
        for (const char* name : {"Work", "Notes"}) {
            fs::create_directories(home + "/" + name);
            std::ofstream(home + "/" + name + "/file.txt") << name;
            auto r = qv({"encrypt", home + "/" + name});
            ASSERT_EQ(r.exitCode, 0) << r.err;
        }
    }
    ProcessResult qv(const std::vector<std::string>& args) {
        std::vector<std::string> argv{std::string(QV_BINARY_DIR) + "/src/qv"};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProcess(argv, "actions password\n", env);
    }
    // The first field of the status line of the folder at `path`.
    static std::string stateOf(const std::string& status, const std::string& path) {
        std::istringstream lines(status);
        for (std::string line; std::getline(lines, line);)
            if (line.size() > path.size() && line.compare(line.size() - path.size() - 1, std::string::npos, "\t" + path) == 0)
                return line.substr(0, line.find('\t'));
        return "<none>";
    }
    ImageSandbox sandbox;
    std::string home;
    std::map<std::string, std::string> env;
};

} // namespace

TEST_F(QvActions, ChainedFoldersUnlockTogetherAndCyclesAreRefused) {
    const std::string work = home + "/Work", notes = home + "/Notes";
    EXPECT_EQ(qv({"actions", work}).out, "") << "a new folder has no actions";

    auto r = qv({"actions", work, "add", "unlock", notes});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "unlock\t1\tUnlock Folder\t" + notes + "\n");
    r = qv({"actions", work, "add", "unlock", notes});
    EXPECT_EQ(r.exitCode, 4) << "already in the list";

    // Locking Work locks Notes; Notes locking Work as well would close a circle.
    ASSERT_EQ(qv({"actions", work, "add", "lock", notes}).exitCode, 0);
    r = qv({"actions", notes, "add", "lock", work});
    EXPECT_EQ(r.exitCode, 4);
    EXPECT_NE(r.err.find("dependency cycle"), std::string::npos) << r.err;
    EXPECT_EQ(qv({"actions", notes}).out, "") << "nothing was added";
    EXPECT_EQ(qv({"actions", work, "add", "lock", work}).exitCode, 4) << "not itself";
    EXPECT_EQ(qv({"actions", work, "add", "open", home + "/nothing here"}).exitCode, 4);
    EXPECT_EQ(qv({"actions", notes, "remove", "lock", "1"}).exitCode, 4) << "the lock list is empty";
    EXPECT_EQ(qv({"actions", work, "add", "frob", notes}).exitCode, 2);

    // The chain: unlocking Work unlocks Notes first.
    r = qv({"unlock", work});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    r = qv({"status"});
    EXPECT_EQ(stateOf(r.out, work), "unlocked");
    EXPECT_EQ(stateOf(r.out, notes), "unlocked") << r.out;
    EXPECT_EQ(readFile(notes + "/file.txt"), "Notes");
    r = qv({"lock", work});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(stateOf(qv({"status"}).out, notes), "locked") << "locked through Work's lock action";

    r = qv({"actions", work, "remove", "unlock", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "lock\t1\tLock Folder\t" + notes + "\n");
    ASSERT_EQ(qv({"unlock", work}).exitCode, 0);
    r = qv({"status"});
    EXPECT_EQ(stateOf(r.out, notes), "locked") << "Notes stays locked now:\n" << r.out;
    EXPECT_EQ(stateOf(r.out, work), "unlocked");
    ASSERT_EQ(qv({"lock", work}).exitCode, 0);
}

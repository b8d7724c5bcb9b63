// The mark that keeps two processes from working on one folder at once.
#include "app/FolderTaskMark.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempHome.h"

namespace qv {
namespace {

class FolderTaskMarkTest : public ::testing::Test {
protected:
    void SetUp() override {
        runtime = test::makeTempDir("qvmarks");
        old = std::getenv("XDG_RUNTIME_DIR") ? std::getenv("XDG_RUNTIME_DIR") : "";
        ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    }
    void TearDown() override {
        if (old.empty())
            ::unsetenv("XDG_RUNTIME_DIR");
        else
            ::setenv("XDG_RUNTIME_DIR", old.c_str(), 1);
        std::string cmd = "rm -rf '" + runtime + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
    std::string runtime, old;
};

TEST_F(FolderTaskMarkTest, OneHolderAtATimeAndTheMarkGoesWithItsHolder) {
    const std::string uuid = "0F2B3C4D-AAAA-BBBB-CCCC-000000000001";
    EXPECT_FALSE(FolderTaskMark::isHeld(uuid));
    {
        auto mark = FolderTaskMark::hold(uuid);
        ASSERT_TRUE(mark);
        EXPECT_TRUE(FolderTaskMark::isHeld(uuid));
        EXPECT_FALSE(FolderTaskMark::hold(uuid)) << "not twice, not even in one process";
        EXPECT_TRUE(FolderTaskMark::hold("0F2B3C4D-AAAA-BBBB-CCCC-000000000002")) << "other folders are free";
    }
    EXPECT_FALSE(FolderTaskMark::isHeld(uuid));

    // Another process holds it until it dies, however it dies.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        auto mark = FolderTaskMark::hold(uuid);
        char c = mark ? 'y' : 'n';
        (void)!::write(ready[1], &c, 1);
        ::pause();
        ::_exit(0);
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    EXPECT_TRUE(FolderTaskMark::isHeld(uuid));
    EXPECT_FALSE(FolderTaskMark::hold(uuid));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(FolderTaskMark::isHeld(uuid));
    EXPECT_TRUE(FolderTaskMark::hold(uuid));
    ::close(ready[0]);
    ::close(ready[1]);

    EXPECT_FALSE(FolderTaskMark::hold("../../etc/passwd")) << "only uuid-like names";
    EXPECT_FALSE(FolderTaskMark::hold(""));
}

} // namespace
} // namespace qv

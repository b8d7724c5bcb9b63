// The mark that keeps two processes from working on one folder at once.
#include "app/FolderTaskMark.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "support/TempHome.h"

namespace qv {
namespace {

// A private runtime directory for the marks, undone even when an assertion fails.
struct TempRuntimeDir {
    std::string dir = test::makeTempDir("qvmarks");
    std::optional<std::string> saved;
    TempRuntimeDir() {
        if (const char* old = std::getenv("XDG_RUNTIME_DIR")) saved = old;
        ::setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
    }
    ~TempRuntimeDir() {
        saved ? ::setenv("XDG_RUNTIME_DIR", saved->c_str(), 1) : ::unsetenv("XDG_RUNTIME_DIR");
        std::filesystem::remove_all(dir);
    }
};

} // namespace

TEST(FolderTaskMark, OneHolderAtATimeAndTheMarkGoesWithItsHolder) {
    TempRuntimeDir runtime;
    const std::string uuid = "0F2B3C4D-AAAA-BBBB-CCCC-000000000001";
    {
        auto mark = FolderTaskMark::hold(uuid);
        ASSERT_TRUE(mark && FolderTaskMark::isHeld(uuid));
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
        (void)!::write(ready[1], mark ? "y" : "n", 1);
        ::pause();
        ::_exit(0);
    }
    char c = 0;
    EXPECT_TRUE(::read(ready[0], &c, 1) == 1 && c == 'y');
    EXPECT_FALSE(FolderTaskMark::hold(uuid));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(FolderTaskMark::hold(uuid));
    ::close(ready[0]);
    ::close(ready[1]);
    EXPECT_FALSE(FolderTaskMark::hold("../../etc/passwd")) << "only uuid-like names";
}

} // namespace qv

// The process runner: output and status, standard input as a pipe only when
// given, the order in which the child's streams are read, and launch failures.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "disk/ProcessRunner.h"
#include "support/TempHome.h"
#include "toolkit/LogCapture.h"

namespace {

using qv::QVError;
using qv::quickCommand;

std::string asString(const std::optional<std::vector<uint8_t>>& bytes) {
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string("<null>");
}

TEST(ProcessRunner, StatusOutputAndErrorText) {
    QVError error{"stale", 99, "stale"};
    auto out = quickCommand("/bin/sh", {"-c", "printf 'hello\\nworld'"}, std::nullopt, &error);
    EXPECT_EQ(asString(out), "hello\nworld");
    EXPECT_TRUE(error.empty()) << "a success must clear the caller's error";

    // A failure still hands back stdout; the description is stderr, the code the status.
    out = quickCommand("/bin/sh", {"-c", "echo partial; echo 'it broke: ü' >&2; exit 3"}, std::nullopt, &error);
    EXPECT_EQ(asString(out), "partial\n");
    EXPECT_EQ(error.domain, qv::QVPOSIXErrorDomain);
    EXPECT_EQ(error.code, 3);
    EXPECT_EQ(error.description, "it broke: ü\n");

    // Arguments reach the child one by one, untouched by any shell.
    out = quickCommand("/usr/bin/printf", {"[%s]", "a b", "$HOME", "*", ""}, std::nullopt, &error);
    EXPECT_EQ(asString(out), "[a b][$HOME][*][]");
    // The text overload: an invalid byte becomes U+FFFD, the rest is kept.
    EXPECT_EQ(quickCommand("/bin/sh", {"-c", "printf 'caf\\303\\251 \\377!'"}, &error).value_or(""), "café \xEF\xBF\xBD!");
}

TEST(ProcessRunner, LargeOutputThenLargeErrorIsReadInOrder) {
    // More than a pipe holds on each stream: stdout first (then closed), stderr after.
    const std::string script =
        "head -c 200000 /dev/zero | tr '\\0' a; exec 1>&-; head -c 150000 /dev/zero | tr '\\0' b >&2; exit 7";
    QVError error;
    auto out = quickCommand("/bin/sh", {"-c", script}, std::nullopt, &error);
    EXPECT_EQ(asString(out), std::string(200000, 'a'));
    EXPECT_EQ(error.code, 7);
    EXPECT_EQ(error.description, std::string(150000, 'b'));
}

// Passwords travel on standard input: they must arrive exactly, and only there.
TEST(ProcessRunner, StandardInputIsAPipeOnlyWhenInputIsGiven) {
    const int saved = ::dup(STDIN_FILENO);
    const int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, STDIN_FILENO);
    ::close(null);
    QVError error;
    quickCommand("/bin/sh", {"-c", "[ -p /dev/stdin ]"}, std::nullopt, &error);
    ::dup2(saved, STDIN_FILENO);
    ::close(saved);
    EXPECT_EQ(error.code, 1) << "without input the child inherits our stdin, which is no pipe here";

    EXPECT_EQ(asString(quickCommand("/bin/cat", {}, std::vector<uint8_t>{}, &error)), "") << "empty input: end of file";
    const std::string secret("pass\0word \n", 11);
    EXPECT_EQ(asString(quickCommand("/bin/cat", {}, qv::QVInputBytes(secret), &error)), secret);
    // A child that exits without reading a large input is no failure of ours,
    // and the broken pipe must not take the test process down.
    auto out = quickCommand("/bin/sh", {"-c", "echo gone; exit 2"}, std::vector<uint8_t>(1 << 20, 'x'), &error);
    EXPECT_EQ(asString(out), "gone\n");
    EXPECT_EQ(error.code, 2);

    // A descriptor of ours without close-on-exec must not reach the child.
    int leaky = ::open("/dev/null", O_RDONLY);
    out = quickCommand("/bin/sh", {"-c", "ls /proc/$$/fd"}, std::nullopt, &error);
    ::close(leaky);
    EXPECT_EQ(asString(out), "0\n1\n2\n");
}

TEST(ProcessRunner, LaunchFailuresAreCaughtWithoutLoggingTheInput) {
    const std::string dir = qv::test::makeTempDir("qvrunner");
    const std::string notExecutable = dir + "/script";
    std::ofstream(notExecutable) << "#!/bin/sh\necho should not run\n";
    ::chmod(notExecutable.c_str(), 0644);
    for (const std::string& path : {dir + "/missing", notExecutable}) {
        qv::test::LogCapture log;
        QVError error;
        EXPECT_FALSE(quickCommand(path, {"arg"}, qv::QVInputBytes("secret"), &error).has_value()) << path;
        EXPECT_EQ(error.code, -1);
        EXPECT_TRUE(log.has("while trying to run " + path + ": "));
        EXPECT_FALSE(log.has("secret")) << "input bytes must never be logged";
    }
    std::filesystem::remove_all(dir);
}

} // namespace

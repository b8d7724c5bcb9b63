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
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"

namespace {

using qv::test::LogCapture;

using qv::QVError;
using qv::quickCommand;

std::string asString(const std::optional<std::vector<uint8_t>>& bytes) {
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string("<null>");
}

// Our standard input replaced by /dev/null for one scope, so that what a child
// inherits doesn't depend on how the test runner was started.
struct StdinFromDevNull {
    int saved;
    StdinFromDevNull() {
        saved = ::dup(STDIN_FILENO);
        int fd = ::open("/dev/null", O_RDONLY);
        ::dup2(fd, STDIN_FILENO);
        ::close(fd);
    }
    ~StdinFromDevNull() {
        ::dup2(saved, STDIN_FILENO);
        ::close(saved);
    }
};

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

    // Status 1 with nothing on stderr: an error with an empty description.
    out = quickCommand("/bin/sh", {"-c", "echo only-out; exit 1"}, std::nullopt, &error);
    EXPECT_EQ(asString(out), "only-out\n");
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(error.description, "");

    // A child killed by a signal reports the signal's number.
    out = quickCommand("/bin/sh", {"-c", "kill -TERM $$"}, std::nullopt, &error);
    EXPECT_EQ(error.code, 15);

    // No error out-parameter at all is fine.
    out = quickCommand("/bin/sh", {"-c", "exit 4"}, std::nullopt, nullptr);
    ASSERT_TRUE(out.has_value());
    EXPECT_TRUE(out->empty());

    // Arguments reach the child one by one, untouched by any shell.
    out = quickCommand("/usr/bin/printf", {"[%s]", "a b", "$HOME", "*", ""}, std::nullopt, &error);
    EXPECT_EQ(asString(out), "[a b][$HOME][*][]");
}

TEST(ProcessRunner, LargeOutputThenLargeErrorIsReadInOrder) {
    // More than a pipe holds on each stream: stdout first (then closed), stderr after.
    const std::string script =
        "head -c 200000 /dev/zero | tr '\\0' a; exec 1>&-; head -c 150000 /dev/zero | tr '\\0' b >&2; exit 7";
    QVError error;
    auto out = quickCommand("/bin/sh", {"-c", script}, std::nullopt, &error);
    ASSERT_TRUE(out.has_value());
    EXPECT_EQ(out->size(), 200000u);
    EXPECT_EQ(std::string(out->begin(), out->end()), std::string(200000, 'a'));
    EXPECT_EQ(error.code, 7);
    EXPECT_EQ(error.description, std::string(150000, 'b'));
}

TEST(ProcessRunner, StandardInputIsAPipeOnlyWhenInputIsGiven) {
    StdinFromDevNull quiet;
    const std::vector<std::string> isPipe{"-c", "[ -p /dev/stdin ]"};
    QVError error;

    quickCommand("/bin/sh", isPipe, std::nullopt, &error);
    EXPECT_EQ(error.code, 1) << "without input the child inherits our stdin, which is no pipe here";

    // Empty input: a pipe that is closed at once, so a reader sees end of file.
    const std::vector<uint8_t> empty;
    quickCommand("/bin/sh", isPipe, empty, &error);
    EXPECT_TRUE(error.empty()) << error.description;
    auto out = quickCommand("/bin/cat", {}, empty, &error);
    ASSERT_TRUE(out.has_value());
    EXPECT_TRUE(out->empty());

    // The bytes arrive exactly: no newline or NUL added, embedded ones kept.
    const std::string secret("pass\0word \n", 11);
    out = quickCommand("/bin/cat", {}, qv::QVInputBytes(secret), &error);
    EXPECT_EQ(asString(out), secret);

    // A child that exits without reading a large input is no failure of ours,
    // and the broken pipe must not take the test process down.
    const std::vector<uint8_t> big(1 << 20, 'x');
    out = quickCommand("/bin/sh", {"-c", "echo gone; exit 2"}, big, &error);
    EXPECT_EQ(asString(out), "gone\n");
    EXPECT_EQ(error.code, 2);
}

TEST(ProcessRunner, ChildInheritsOnlyTheStandardStreams) {
    // A descriptor of ours without close-on-exec must not reach the child.
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 3);
    QVError error;
    // `ls` lists the descriptors of the shell that started it.
    auto out = quickCommand("/bin/sh", {"-c", "ls /proc/$$/fd"}, std::nullopt, &error);
    ::close(leaky);
    EXPECT_EQ(asString(out), "0\n1\n2\n");
}

TEST(ProcessRunner, LaunchFailuresAreCaughtAndLogged) {
    const std::string dir = qv::test::makeTempDir("qvrunner");
    const std::string notExecutable = dir + "/script";
    std::ofstream(notExecutable) << "#!/bin/sh\necho should not run\n";
    ::chmod(notExecutable.c_str(), 0644);

    struct Case {
        std::string path;
        const char* name;
    };
    for (const Case& c : {Case{dir + "/missing", "ENOENT"}, Case{notExecutable, "EACCES"}}) {
        SCOPED_TRACE(c.path);
        LogCapture log;
        QVError error;
        auto out = quickCommand(c.path, {"arg"}, qv::QVInputBytes("secret"), &error);
        EXPECT_FALSE(out.has_value()) << "no output object when nothing ran";
        EXPECT_EQ(error.domain, qv::QVPOSIXErrorDomain);
        EXPECT_EQ(error.code, -1);
        EXPECT_FALSE(error.description.empty());
        EXPECT_TRUE(log.has(std::string("ERROR (quickCommand:")));
        EXPECT_TRUE(log.has(std::string("got ") + c.name + " while trying to run " + c.path + ": "));
        EXPECT_FALSE(log.has("secret")) << "input bytes must never be logged";

        auto text = quickCommand(c.path, {}, &error);
        EXPECT_FALSE(text.has_value());
        EXPECT_EQ(error.code, -1);
    }
    std::filesystem::remove_all(dir);
}

TEST(ProcessRunner, TextOverloadDecodesUtf8) {
    QVError error;
    auto text = quickCommand("/bin/sh", {"-c", "printf 'caf\\303\\251 \\377!'"}, &error);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(*text, "café \xEF\xBF\xBD!") << "an invalid byte becomes U+FFFD, the rest is kept";
    EXPECT_TRUE(error.empty());

    text = quickCommand("/bin/sh", {"-c", "exit 5"}, &error);
    ASSERT_TRUE(text.has_value()) << "a failed run that ran still gives a (empty) string";
    EXPECT_EQ(*text, "");
    EXPECT_EQ(error.code, 5);
}

} // namespace

// The runner of helper programs: children that write much on both streams or
// read their input late must not stall, input arrives exactly, and how a child
// ended (or why it never ran) is told apart.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "sys/ProgramRunner.h"

namespace {

using qv::QVProgramResult;
using qv::QVRunOptions;
using qv::QVRunProgram;

std::span<const uint8_t> bytesOf(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// Every script runs under timeout(1): a runner that stalls gets its child killed
// (status 124) instead of hanging the test.
QVProgramResult runScript(const std::string& script, const QVRunOptions& options = {}) {
    return QVRunProgram("/usr/bin/timeout", {"20", "/bin/sh", "-c", script}, options);
}

// A pipe holds 64 KiB: a child that fills one stream while we wait on the other
// stalls a runner that reads them one after the other.
TEST(ProgramRunner, ChildrenWritingMuchOnBothStreamsDoNotStall) {
    const std::string errorFirst = "head -c 300000 /dev/zero | tr '\\0' e >&2; head -c 200000 /dev/zero | tr '\\0' o";
    QVProgramResult r = runScript(errorFirst);
    ASSERT_TRUE(r.ok()) << r.summary();
    EXPECT_EQ(r.err, std::string(300000, 'e'));
    EXPECT_EQ(r.out, std::string(200000, 'o'));

    const std::string alternating = "for i in $(seq 40); do head -c 10000 /dev/zero | tr '\\0' o; "
                                    "head -c 10000 /dev/zero | tr '\\0' e >&2; done";
    r = runScript(alternating);
    ASSERT_TRUE(r.ok()) << r.summary();
    EXPECT_EQ(r.out.size(), 400000u);
    EXPECT_EQ(r.err.size(), 400000u);
}

// Passwords arrive on standard input: exactly, even when the child writes a lot
// before it reads, and only where input was given.
TEST(ProgramRunner, InputIsDeliveredWhileOutputIsRead) {
    std::string input(1 << 20, 'x');
    input.replace(1000, 11, std::string("pass\0word \n", 11));
    QVRunOptions options;
    options.input = bytesOf(input);
    QVProgramResult r = runScript("head -c 500000 /dev/zero; cat >&2", options);
    ASSERT_TRUE(r.ok()) << r.summary();
    EXPECT_EQ(r.out.size(), 500000u);
    EXPECT_TRUE(r.err == input) << "the input came back altered";

    options.input = std::span<const uint8_t>();
    r = runScript("cat; echo end", options);
    EXPECT_EQ(r.out, "end\n") << "empty input is an immediate end of file";

    QVRunOptions plain;
    plain.cLocale = true;
    r = runScript("[ -p /dev/stdin ] && echo pipe; cat; echo \"$LC_ALL/$LANG\"", plain);
    EXPECT_EQ(r.out, "C/C\n") << "without input the child reads /dev/null, and C locale was asked for";

    // A child that stops reading early: no failure of ours, and its status counts.
    options.input = bytesOf(input);
    r = runScript("head -c 10 >/dev/null; exit 4", options);
    EXPECT_EQ(r.failure, 0) << r.failureReason;
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 4);
}

TEST(ProgramRunner, HowTheChildEndedIsTold) {
    QVProgramResult r = runScript("echo progress; echo 'mkfs: device\tbusy' >&2; exit 5");
    EXPECT_FALSE(r.ok());
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.summary(), "mkfs: device busy (exit status 5)");

    r = QVRunProgram("/bin/sh", {"-c", "echo only output; kill -KILL $$"});
    EXPECT_FALSE(r.exited);
    EXPECT_EQ(r.signal, 9);
    EXPECT_EQ(r.summary(), "only output (killed by signal 9)");

    r = QVRunProgram("/usr/bin/printf", {"[%s]", "a b", "$HOME", "*", ""});
    EXPECT_EQ(r.out, "[a b][$HOME][*][]") << "arguments reach the child untouched by any shell";
}

TEST(ProgramRunner, AProgramThatCannotBeLaunchedNeverStarts) {
    for (const std::string path : {"/nonexistent/helper", "/etc/passwd"}) {
        QVProgramResult r = QVRunProgram(path, {"arg"});
        EXPECT_FALSE(r.started) << path;
        EXPECT_FALSE(r.ok());
        EXPECT_NE(r.failure, 0);
        EXPECT_EQ(r.summary().rfind("launch path not accessible: ", 0), 0u) << r.summary();
    }
    EXPECT_EQ(QVRunProgram("/nonexistent/helper", {}).failure, ENOENT);
}

} // namespace

// Writing everything: a write cut short by a signal goes on where it stopped,
// positional writes leave the file offset alone, and failures carry their errno.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "support/TempHome.h"
#include "toolkit/WriteAll.h"

namespace {

void ignoreSignal(int) {}

// A blocking write into a pipe that a slow reader drains, interrupted again and
// again by a signal whose handler does not restart it: the write returns early,
// after part of the bytes or before any.
TEST(WriteAll, InterruptedAndPartialWritesGoOnWhereTheyStopped) {
    struct sigaction interrupt {
    }, saved{};
    interrupt.sa_handler = ignoreSignal;
    sigemptyset(&interrupt.sa_mask);
    interrupt.sa_flags = 0; // no SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR2, &interrupt, &saved), 0);
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);

    std::string data(4 << 20, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4099);
    std::atomic<bool> done{false};
    int rc = -1;
    std::thread writer([&] {
        rc = qv::QVWriteAll(fds[1], data);
        done = true;
    });
    std::string received;
    char buffer[8192];
    int interrupts = 0;
    while (received.size() < data.size()) {
        if (!done && received.size() % (64 << 10) < sizeof buffer) {
            ::pthread_kill(writer.native_handle(), SIGUSR2);
            ++interrupts;
        }
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n <= 0) break;
        received.append(buffer, static_cast<size_t>(n));
        if (received.size() % (256 << 10) < sizeof buffer) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    writer.join();
    ::close(fds[0]);
    ::close(fds[1]);
    ::sigaction(SIGUSR2, &saved, nullptr);
    EXPECT_EQ(rc, 0);
    EXPECT_GT(interrupts, 10);
    EXPECT_TRUE(received == data) << "got " << received.size() << " bytes, not the " << data.size() << " written";
}

TEST(WriteAll, PositionalWritesAndFailures) {
    const std::string dir = qv::test::makeTempDir("qvwrite");
    const std::string path = dir + "/file";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(qv::QVWriteAllAt(fd, "tail", 4, 6), 0);
    EXPECT_EQ(qv::QVWriteAll(fd, "head"), 0) << "the positional write left the offset at 0";
    char back[10];
    EXPECT_EQ(::pread(fd, back, sizeof back, 0), 10);
    EXPECT_EQ(std::string(back, 10), std::string("head\0\0tail", 10));
    ::close(fd);

    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    errno = 0;
    EXPECT_EQ(qv::QVWriteAll(fd, "x"), EBADF);
    EXPECT_EQ(errno, EBADF) << "the errno is left for callers that read it";
    ::close(fd);

    // A reader that went away: EPIPE, not a retry forever.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]);
    auto* previous = ::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(qv::QVWriteAll(fds[1], std::string(100000, 'x')), EPIPE);
    ::signal(SIGPIPE, previous);
    ::close(fds[1]);
    std::filesystem::remove_all(dir);
}

} // namespace

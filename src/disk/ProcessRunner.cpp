#include "disk/ProcessRunner.h"

#include <QString>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "toolkit/Log.h"

extern char** environ;

namespace qv {
namespace {

// A pipe end that closes itself.
class PipeEnd {
public:
    PipeEnd() = default;
    explicit PipeEnd(int fd) : fd_(fd) {}
    PipeEnd(const PipeEnd&) = delete;
    PipeEnd& operator=(const PipeEnd&) = delete;
    ~PipeEnd() { reset(); }
    int get() const { return fd_; }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// Both ends are close-on-exec, so that a child another thread starts at the same
// moment can't inherit them and hold our reads open.
bool makePipe(PipeEnd& readEnd, PipeEnd& writeEnd) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

// What stands for an exception of the launch or of the conversation with the child.
struct RunFailure {
    std::string name;
    std::string reason;
};

RunFailure failureFromErrno(const char* what, int err) {
    const char* name = ::strerrorname_np(err);
    return {name ? name : "error " + std::to_string(err), std::string(what) + ": " + std::strerror(err)};
}

// Writes all of `bytes`. A child that exits without reading its input closes the
// pipe: that is no failure of ours (its exit status and message tell why), so
// EPIPE ends the write quietly, and the SIGPIPE it raises is blocked in this
// thread and taken back, never reaching the process.
std::optional<RunFailure> writeAll(int fd, std::span<const uint8_t> bytes) {
    sigset_t pipeSet, oldSet, pending;
    sigemptyset(&pipeSet);
    sigaddset(&pipeSet, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
    sigemptyset(&pending);
    ::sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;

    std::optional<RunFailure> failure;
    bool brokenPipe = false;
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EPIPE) {
                brokenPipe = true;
            } else {
                failure = failureFromErrno("write to standard input", errno);
            }
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (brokenPipe && !wasPending) {
        const timespec zero{0, 0};
        while (::sigtimedwait(&pipeSet, nullptr, &zero) < 0 && errno == EINTR) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
    return failure;
}

std::optional<RunFailure> readToEnd(int fd, std::vector<uint8_t>& out, const char* what) {
    uint8_t buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) return std::nullopt;
        if (n < 0) {
            if (errno == EINTR) continue;
            return failureFromErrno(what, errno);
        }
        out.insert(out.end(), buffer, buffer + n);
    }
}

// Status of a finished child as the callers see it: the exit status, or the
// number of the signal that killed it.
int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
    return -1;
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return statusOf(status);
}

// Asks the child to stop, gives it a moment, then kills it, and reaps it so that
// no zombie is left behind.
void terminateChild(pid_t pid) {
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        int status = 0;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) return;
        ::usleep(20000);
    }
    ::kill(pid, SIGKILL);
    waitFor(pid);
}

std::string decodeUtf8(const std::vector<uint8_t>& bytes) {
    return QString::fromUtf8(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()))
        .toStdString();
}

class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

} // namespace

std::optional<std::vector<uint8_t>> quickCommand(const std::string& launchPath,
                                                 const std::vector<std::string>& args,
                                                 std::optional<std::span<const uint8_t>> inputData,
                                                 QVError* error) {
    if (error) *error = QVError{};

    std::vector<uint8_t> out;
    std::vector<uint8_t> err;
    std::optional<RunFailure> failure;
    int status = -1;
    pid_t pid = -1;

    PipeEnd inRead, inWrite, outRead, outWrite, errRead, errWrite;
    if ((inputData && !makePipe(inRead, inWrite)) || !makePipe(outRead, outWrite) || !makePipe(errRead, errWrite)) {
        failure = failureFromErrno("pipe", errno);
    }

    if (!failure) {
        SpawnSetup setup;
        if (inputData) ::posix_spawn_file_actions_adddup2(&setup.actions, inRead.get(), STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&setup.actions, outWrite.get(), STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&setup.actions, errWrite.get(), STDERR_FILENO);
        // The child gets nothing of ours beyond the three standard streams.
        ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, STDERR_FILENO + 1);

        // A clean signal state: our threads may block or ignore signals (SIGPIPE
        // while writing input) that the child must see as usual.
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        ::posix_spawnattr_setsigmask(&setup.attributes, &none);
        ::posix_spawnattr_setsigdefault(&setup.attributes, &all);
        ::posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        std::vector<char*> argv;
        argv.reserve(args.size() + 2);
        argv.push_back(const_cast<char*>(launchPath.c_str()));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);

        int rc = ::posix_spawn(&pid, launchPath.c_str(), &setup.actions, &setup.attributes, argv.data(), environ);
        if (rc != 0) {
            pid = -1;
            failure = failureFromErrno("launch path not accessible", rc);
        }
    }

    if (!failure) {
        // Our copies of the child's ends must go, or the reads below never see EOF.
        inRead.reset();
        outWrite.reset();
        errWrite.reset();

        if (inputData) {
            failure = writeAll(inWrite.get(), *inputData);
            inWrite.reset();
        }
        if (!failure) {
            failure = readToEnd(outRead.get(), out, "read of standard output");
            outRead.reset();
        }
        if (!failure) {
            failure = readToEnd(errRead.get(), err, "read of standard error");
            errRead.reset();
        }
        if (!failure) {
            status = waitFor(pid);
            if (status < 0) failure = failureFromErrno("waitpid", errno);
            pid = -1;
        }
    }

    if (failure) {
        QV_LOG_ERROR(QVFormat("got %s while trying to run %s: %s", failure->name.c_str(), launchPath.c_str(),
                              failure->reason.c_str()));
        if (pid > 0) terminateChild(pid);
        status = -1;
        QVSetError(error, QVPOSIXErrorDomain, status, failure->reason.empty() ? decodeUtf8(err) : failure->reason);
        if (out.empty()) return std::nullopt;
        return out;
    }

    if (status != 0) QVSetError(error, QVPOSIXErrorDomain, status, decodeUtf8(err));
    return out;
}

std::optional<std::string> quickCommand(const std::string& launchPath, const std::vector<std::string>& args,
                                        QVError* error) {
    std::optional<std::vector<uint8_t>> out = quickCommand(launchPath, args, std::nullopt, error);
    if (!out) return std::nullopt;
    return decodeUtf8(*out);
}

} // namespace qv

#include "sys/ProgramRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "sys/UniqueFd.h"
#include "toolkit/Log.h"

extern char** environ;

namespace qv {
namespace {

void setFailure(QVProgramResult& result, const char* what, int err) {
    result.failure = err;
    result.failureReason = std::string(what) + ": " + std::strerror(err);
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

// Our environment, with the C locale in place of any other when asked.
std::vector<std::string> childEnvironment(bool cLocale) {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e) {
        if (cLocale && (std::strncmp(*e, "LC_ALL=", 7) == 0 || std::strncmp(*e, "LANG=", 5) == 0)) continue;
        env.emplace_back(*e);
    }
    if (cLocale) {
        env.emplace_back("LC_ALL=C");
        env.emplace_back("LANG=C");
    }
    return env;
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& w : words) pointers.push_back(w.data());
    pointers.push_back(nullptr);
    return pointers;
}

// A SIGPIPE that our write to a child that stopped reading raises must not reach
// the process: it is blocked in this thread for the conversation, and one we
// raised is taken back before the block is lifted.
class PipeSignalGuard {
public:
    PipeSignalGuard() {
        sigemptyset(&pipeSet_);
        sigaddset(&pipeSet_, SIGPIPE);
        ::pthread_sigmask(SIG_BLOCK, &pipeSet_, &oldSet_);
        sigset_t pending;
        sigemptyset(&pending);
        ::sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    }
    ~PipeSignalGuard() {
        if (raised_ && !wasPending_) {
            const timespec zero{0, 0};
            while (::sigtimedwait(&pipeSet_, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &oldSet_, nullptr);
    }
    PipeSignalGuard(const PipeSignalGuard&) = delete;
    PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;
    void noteRaised() { raised_ = true; }

private:
    sigset_t pipeSet_;
    sigset_t oldSet_;
    bool wasPending_ = false;
    bool raised_ = false;
};

// Feeds `input` to the child while reading both of its output streams, until
// both are at end of file. False (with the failure in `result`) when a pipe
// failed on our side.
bool converse(UniqueFd& in, std::span<const uint8_t> input, UniqueFd& out, UniqueFd& err, QVProgramResult& result) {
    std::optional<PipeSignalGuard> pipeSignal;
    size_t fed = 0;
    if (in) {
        if (input.empty()) {
            in.reset();
        } else {
            pipeSignal.emplace();
            ::fcntl(in.get(), F_SETFL, ::fcntl(in.get(), F_GETFL) | O_NONBLOCK);
        }
    }
    struct Stream {
        UniqueFd& fd;
        std::string& text;
        const char* what;
    };
    Stream readers[2] = {{out, result.out, "read of standard output"}, {err, result.err, "read of standard error"}};
    uint8_t buffer[65536];
    while (out || err || in) {
        pollfd fds[3];
        nfds_t count = 0;
        for (const Stream& s : readers)
            if (s.fd) fds[count++] = {s.fd.get(), POLLIN, 0};
        if (in) fds[count++] = {in.get(), POLLOUT, 0};
        if (::poll(fds, count, -1) < 0) {
            if (errno == EINTR) continue;
            setFailure(result, "poll", errno);
            return false;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (fds[i].revents == 0) continue;
            if (in && fds[i].fd == in.get()) {
                const ssize_t n = ::write(in.get(), input.data() + fed, input.size() - fed);
                if (n >= 0) {
                    fed += static_cast<size_t>(n);
                    if (fed == input.size()) in.reset();
                } else if (errno == EPIPE) {
                    pipeSignal->noteRaised();
                    in.reset();
                } else if (errno != EAGAIN && errno != EINTR) {
                    setFailure(result, "write to standard input", errno);
                    return false;
                }
                continue;
            }
            for (Stream& s : readers) {
                if (!s.fd || fds[i].fd != s.fd.get()) continue;
                const ssize_t n = ::read(s.fd.get(), buffer, sizeof buffer);
                if (n > 0) {
                    s.text.append(reinterpret_cast<const char*>(buffer), static_cast<size_t>(n));
                } else if (n == 0) {
                    s.fd.reset();
                } else if (errno != EINTR && errno != EAGAIN) {
                    setFailure(result, s.what, errno);
                    return false;
                }
            }
        }
    }
    return true;
}

int waitFor(pid_t pid, int* status) {
    while (::waitpid(pid, status, 0) < 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

// Asks the child to stop, gives it a moment, then kills it, and reaps it so that
// no zombie is left behind.
void terminateChild(pid_t pid) {
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 50; ++i) {
        int status = 0;
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) return;
        ::usleep(20000);
    }
    ::kill(pid, SIGKILL);
    int status = 0;
    waitFor(pid, &status);
}

std::string lastLine(const std::string& text) {
    std::string t = text;
    while (!t.empty() && (t.back() == '\n' || t.back() == ' ' || t.back() == '\r')) t.pop_back();
    const size_t nl = t.find_last_of('\n');
    std::string line = nl == std::string::npos ? t : t.substr(nl + 1);
    std::replace(line.begin(), line.end(), '\t', ' ');
    return line;
}

} // namespace

std::string QVProgramResult::summary() const {
    if (failure != 0) return failureReason;
    if (!started) return "could not be started";
    std::string words = lastLine(err);
    if (words.empty()) words = lastLine(out);
    const std::string how = exited ? QVFormat("exit status %d", status) : QVFormat("killed by signal %d", signal);
    return words.empty() ? how : words + " (" + how + ")";
}

QVProgramResult QVRunProgram(const std::string& path, const std::vector<std::string>& args,
                             const QVRunOptions& options) {
    QVProgramResult result;
    UniqueFd inRead, inWrite, outRead, outWrite, errRead, errWrite;
    if ((options.input && !QVMakePipe(inRead, inWrite)) || !QVMakePipe(outRead, outWrite) ||
        !QVMakePipe(errRead, errWrite)) {
        setFailure(result, "pipe", errno);
        return result;
    }

    pid_t pid = -1;
    {
        SpawnSetup setup;
        if (options.input)
            ::posix_spawn_file_actions_adddup2(&setup.actions, inRead.get(), STDIN_FILENO);
        else if (!options.inheritInput)
            ::posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&setup.actions, outWrite.get(), STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&setup.actions, errWrite.get(), STDERR_FILENO);
        ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, STDERR_FILENO + 1);

        // Our threads may block or ignore signals (SIGPIPE while feeding input,
        // the device process's stop signals) that the child must see as usual.
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        ::posix_spawnattr_setsigmask(&setup.attributes, &none);
        ::posix_spawnattr_setsigdefault(&setup.attributes, &all);
        ::posix_spawnattr_setflags(&setup.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        std::vector<std::string> argvWords{path};
        argvWords.insert(argvWords.end(), args.begin(), args.end());
        std::vector<char*> argv = pointersTo(argvWords);
        std::vector<std::string> envWords;
        std::vector<char*> envp;
        if (options.cLocale) {
            envWords = childEnvironment(true);
            envp = pointersTo(envWords);
        }
        const int rc = ::posix_spawn(&pid, path.c_str(), &setup.actions, &setup.attributes, argv.data(),
                                     options.cLocale ? envp.data() : environ);
        if (rc != 0) {
            setFailure(result, "launch path not accessible", rc);
            return result;
        }
    }
    result.started = true;
    // Our copies of the child's ends must go, or the reads never see end of file.
    inRead.reset();
    outWrite.reset();
    errWrite.reset();

    if (!converse(inWrite, options.input.value_or(std::span<const uint8_t>()), outRead, errRead, result)) {
        terminateChild(pid);
        return result;
    }
    int status = 0;
    if (const int err = waitFor(pid, &status)) {
        setFailure(result, "waitpid", err);
        return result;
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

} // namespace qv

#include "support/RunProcess.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qv::test {

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::map<std::string, std::string>& env) {
    ProcessResult result;
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) return result;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        for (const auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    size_t written = 0;
    bool inOpen = true;
    if (input.empty()) {
        ::close(in[1]);
        inOpen = false;
    }
    bool outOpen = true, errOpen = true;
    char buf[65536];
    while (outOpen || errOpen) {
        pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {inOpen ? in[1] : -1, POLLOUT, 0}};
        if (::poll(fds, 3, -1) < 0 && errno != EINTR) break;
        if (inOpen && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            ssize_t n = ::write(in[1], input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 || written == input.size()) {
                ::close(in[1]);
                inOpen = false;
            }
        }
        for (int i = 0; i < 2; ++i) {
            bool& open = i == 0 ? outOpen : errOpen;
            if (open && (fds[i].revents & (POLLIN | POLLHUP | POLLERR))) {
                ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
                if (n > 0)
                    (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
                else
                    open = false;
            }
        }
    }
    if (inOpen) ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

} // namespace qv::test

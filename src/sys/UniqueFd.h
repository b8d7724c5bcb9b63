#pragma once
// A file descriptor with one owner, closed when the owner goes: the way every
// descriptor that outlives a single statement is held, so that no early return
// leaks one and none is closed twice.
#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace qv {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // Gives the descriptor up without closing it: the caller owns it now.
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor held (if any) and holds `fd` instead. A close that
    // fails is not reported: where its error matters (a file just written), the
    // caller releases the descriptor and closes it itself.
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A new pipe, both ends close-on-exec (so that a child another thread starts at
// the same moment can't inherit them and hold them open); the ends held before
// are closed. False, with errno set, when no pipe could be made.
inline bool QVMakePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

} // namespace qv

#include "image/VolumeFlusher.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>

#include "disk/ProcList.h"
#include "image/Helpers.h"
#include "toolkit/Log.h"

namespace qv::image {

namespace {

int openFlushLock(const std::string& attachmentDir) {
    return ::open(flushLockOf(attachmentDir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

// CPU time fuse2fs has used so far, in clock ticks: it moves when, and only when,
// fuse2fs served a request, so an idle volume is never written to.
std::optional<unsigned long long> cpuTicksOf(pid_t pid) {
    std::string stat;
    if (!QVReadProcFile("/proc/" + std::to_string(pid) + "/stat", stat)) return std::nullopt;
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    // After the command name: state is field 3, utime and stime are fields 14 and 15.
    unsigned long long utime = 0, stime = 0;
    if (std::sscanf(stat.c_str() + close + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                    &stime) != 2)
        return std::nullopt;
    return utime + stime;
}

// Opens a file of the volume for writing (fuse2fs flushes only for a writer).
// Its own file in lost+found comes first: every open for writing ends in a
// close-after-write event, and a file manager showing the volume's root would
// answer one on .hidden by reading it again, which would be activity, and a
// flush, every few seconds for as long as it watched. .hidden serves when
// lost+found is gone. Refuses anything that is not on the volume at `mountPoint`.
int openFlushTarget(const std::string& mountPoint) {
    struct stat volume {};
    if (::stat(mountPoint.c_str(), &volume) != 0) return -1;
    constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
    int fd = ::open((mountPoint + "/lost+found/.qv-image-flush").c_str(), kFlags | O_CREAT, 0600);
    if (fd < 0) fd = ::open((mountPoint + "/.hidden").c_str(), kFlags);
    if (fd < 0) return -1;
    struct stat target {};
    if (::fstat(fd, &target) != 0 || target.st_dev != volume.st_dev || !S_ISREG(target.st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// One flush of the volume, unless a detach is under way (it holds the lock).
// Returns whether fuse2fs was asked to flush.
bool flushVolume(const Attachment& a) {
    const int lock = openFlushLock(a.dir);
    if (lock < 0) return false;
    bool flushed = false;
    if (::flock(lock, LOCK_EX | LOCK_NB) == 0) {
        auto mount = mountAt(a.mountPoint);
        if (mount && mount->source == a.devEntry) {
            const int fd = openFlushTarget(a.mountPoint);
            if (fd >= 0) {
                if (::fsync(fd) != 0) QV_LOG_ERROR(QVFormat("flush of %s failed: %s", a.mountPoint.c_str(), std::strerror(errno)));
                ::close(fd);
                flushed = true;
            }
        }
    }
    ::close(lock);
    return flushed;
}

} // namespace

FlushPause::FlushPause(const std::string& attachmentDir) : fd_(openFlushLock(attachmentDir)) {
    if (fd_ >= 0) ::flock(fd_, LOCK_EX);
}

FlushPause::~FlushPause() {
    if (fd_ >= 0) ::close(fd_);
}

VolumeFlusher::VolumeFlusher(std::string attachmentDir) : dir_(std::move(attachmentDir)) {
    thread_ = std::thread([this] { run(); });
}

VolumeFlusher::~VolumeFlusher() {
    {
        std::lock_guard<std::mutex> g(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void VolumeFlusher::run() {
    std::optional<unsigned long long> flushedAt;  // fuse2fs's CPU time after the last flush
    std::unique_lock<std::mutex> g(mutex_);
    for (;;) {
        if (wake_.wait_for(g, std::chrono::seconds(kFlushIntervalSeconds), [this] { return stopping_; })) return;
        g.unlock();
        // Read each time: attach records the mount after the device process started.
        auto a = readAttachment(dir_);
        if (a && a->layer == "fuse2fs" && !a->mountPoint.empty() && a->fsPid > 0) {
            auto ticks = cpuTicksOf(a->fsPid);
            if (ticks && ticks != flushedAt && flushVolume(*a)) flushedAt = cpuTicksOf(a->fsPid);
        }
        g.lock();
    }
}

} // namespace qv::image

#include "image/VolumeFlusher.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>

#include "image/Helpers.h"
#include "sys/MountTable.h"
#include "sys/ProcList.h"
#include "toolkit/Log.h"

namespace qv::image {

namespace {

UniqueFd openFlushLock(const std::string& attachmentDir) {
    return UniqueFd(::open(flushLockOf(attachmentDir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
}

// CPU time fuse2fs has used so far, in clock ticks (utime and stime): it moves
// when, and only when, fuse2fs served a request, so an idle volume is never
// written to.
std::optional<unsigned long long> cpuTicksOf(pid_t pid) {
    const auto stat = QVReadProcStat(pid);
    if (!stat) return std::nullopt;
    const auto utime = stat->number(14), stime = stat->number(15);
    if (!utime || !stime) return std::nullopt;
    return *utime + *stime;
}

// Opens a file of the volume for writing (fuse2fs flushes only for a writer).
// Its own file in lost+found comes first: every open for writing ends in a
// close-after-write event, and a file manager showing the volume's root would
// answer one on .hidden by reading it again, which would be activity, and a
// flush, every few seconds for as long as it watched. .hidden serves when
// lost+found is gone. Refuses anything that is not on the volume at `mountPoint`.
UniqueFd openFlushTarget(const std::string& mountPoint) {
    struct stat volume {};
    if (::stat(mountPoint.c_str(), &volume) != 0) return {};
    constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
    UniqueFd fd(::open((mountPoint + "/lost+found/.qv-image-flush").c_str(), kFlags | O_CREAT, 0600));
    if (!fd) fd.reset(::open((mountPoint + "/.hidden").c_str(), kFlags));
    if (!fd) return {};
    struct stat target {};
    if (::fstat(fd.get(), &target) != 0 || target.st_dev != volume.st_dev || !S_ISREG(target.st_mode)) return {};
    return fd;
}

// One flush of the volume, unless a detach is under way (it holds the lock).
// Returns whether fuse2fs was asked to flush.
bool flushVolume(const Attachment& a) {
    const UniqueFd lock = openFlushLock(a.dir);
    if (!lock || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return false;
    auto mount = QVMountAt(a.mountPoint);
    if (!mount || mount->source != a.devEntry) return false;
    const UniqueFd fd = openFlushTarget(a.mountPoint);
    if (!fd) return false;
    if (::fsync(fd.get()) != 0)
        QV_LOG_ERROR(QVFormat("flush of %s failed: %s", a.mountPoint.c_str(), std::strerror(errno)));
    return true;
}

} // namespace

FlushPause::FlushPause(const std::string& attachmentDir) : fd_(openFlushLock(attachmentDir)) {
    if (fd_) ::flock(fd_.get(), LOCK_EX);
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

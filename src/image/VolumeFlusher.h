#pragma once
// fuse2fs keeps what it changes of the file system's own structures (directory
// blocks, inodes, extent blocks, the allocation bitmaps) in its memory until a
// writer fsyncs a file or the volume is unmounted, while the kernel's ext4
// commits within seconds. Without help, a folder made or a file renamed without
// an fsync could be lost to a crash hours later. The flusher, a thread of the
// device process, asks fuse2fs to write everything out a few seconds after it
// last did anything: through an fsync of a file of its own in the volume's
// lost+found, the one kind of request on which fuse2fs flushes all.
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "sys/UniqueFd.h"

namespace qv::image {

// How long changes may wait in fuse2fs's memory.
inline constexpr int kFlushIntervalSeconds = 5;

// Held by a detach while it unmounts: a flush of the volume under way ends
// first, and none starts meanwhile (the flusher's short-lived open file would
// make the volume look busy). A lock file in the attachment's directory.
class FlushPause {
public:
    explicit FlushPause(const std::string& attachmentDir);

private:
    UniqueFd fd_;
};

class VolumeFlusher {
public:
    // Watches the attachment described in `attachmentDir`; does nothing for a
    // disk without a fuse2fs mount.
    explicit VolumeFlusher(std::string attachmentDir);
    ~VolumeFlusher();  // stops and joins
    VolumeFlusher(const VolumeFlusher&) = delete;
    VolumeFlusher& operator=(const VolumeFlusher&) = delete;

private:
    void run();

    std::string dir_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace qv::image

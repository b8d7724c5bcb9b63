#pragma once
// The FUSE file system that the device process serves in the attachment's
// dev/: one directory holding one file, `disk`, the image's decrypted disk.
// Reads, writes and discards of the disk go through the read-ahead to the band
// store; the handlers run on FUSE's worker threads.
#ifndef FUSE_USE_VERSION
#define FUSE_USE_VERSION 312
#endif
#include <fuse_lowlevel.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "image/BandStore.h"
#include "image/ReadAhead.h"

namespace qv::image {

// The largest request, both ways: large requests keep the per-request cost
// (a round trip through the kernel) small against the work of encryption.
inline constexpr unsigned kMaxRequest = 1u << 20;

// Everything the request handlers share; one per device process.
struct DiskServer {
    std::unique_ptr<BandStore> store;
    std::unique_ptr<ReadAhead> disk; // reads, writes and discards go through it
    std::string deviceDir;
    fuse_session* session = nullptr;
    uid_t uid = 0;
    gid_t gid = 0;
    int bandsFd = -1;
    int wakeFd = -1; // eventfd: the control thread looks again at the open count
    // A write, discard or sync was refused: what the file system believes is
    // on the disk may not be.
    std::atomic<bool> changeFailed{false};

    std::mutex mutex; // guards the three below
    uint64_t openCount = 0;
    bool stopWhenUnused = false;
    bool shuttingDown = false;
};

// Has the control thread look again at the open count and the stop request.
void wakeControl(DiskServer& s);

// The request handlers, for fuse_session_new with the DiskServer as user data.
fuse_lowlevel_ops diskOperations();

} // namespace qv::image

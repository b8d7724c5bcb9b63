#pragma once
// The process that serves an image's decrypted disk: a FUSE file system with
// one file, `disk`, in the attachment's directory. It holds the image's lock
// and the attachment's lock for as long as it runs, keeps the disk key only
// in its own memory, and stops once asked to and nobody has the disk open.
#include <sys/types.h>

#include <chrono>
#include <string>

#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "sys/UniqueFd.h"

namespace qv::image {

struct DeviceOptions {
    std::string attachmentDir; // made by makeAttachmentDir; the disk appears in its dev/
    // Detached: a process of its own session that outlives the caller (attach).
    // Otherwise a child that stops when the caller dies (create, compact, resize).
    bool detached = false;
    // Size of the disk to serve; 0 means the image's size.
    uint64_t size = 0;
};

// A new attachment directory under the runtime base, with its lock file held
// by this process (and by the device process once it is started).
bool makeAttachmentDir(const std::string& base, std::string* dir, UniqueFd* lock, QVError* error);

// Starts the device process. The image must be locked by this process; the
// lock, the attachment lock and the key go to the device process, and this
// process's copy of the key is wiped. Returns once `disk` is served.
bool startDeviceServer(ImageBundle& image, SecureBytes& key, const DeviceOptions& options, int lockFd, pid_t* pid,
                       QVError* error);

// Asks the device process to stop as soon as nobody has its disk open
// (at once when nobody has).
bool requestDeviceStop(pid_t pid);

// Asks the device process to stop and waits until it has ended, that is until
// the attachment's lock is free; reaps it when it is our child. With `wait`
// false only asks. Fails when it did not end in time, or (for our child) when
// it could not make everything durable.
bool stopDeviceServer(const std::string& attachmentDir, pid_t pid, bool wait, std::chrono::milliseconds limit,
                      QVError* error);

} // namespace qv::image

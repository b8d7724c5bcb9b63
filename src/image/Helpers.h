#pragma once
// How qv-image runs the helper programs it drives (by absolute path, never with
// a secret in their arguments), and the runtime directory where attached images
// keep their record.
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "image/ImageTool.h"
#include "sys/ProgramRunner.h"
#include "sys/SystemPrograms.h"

namespace qv::image {

// fuse2fs's mount options for writes of up to 128 KiB instead of a page at a time.
inline constexpr const char* kFuse2fsSpeedOptions = "big_writes,max_write=131072";

// Runs a helper program through the one runner: standard input from /dev/null
// (or the given bytes), standard output and error captured together, every other
// descriptor closed, and the C locale so that its output can be parsed.
using ProgramResult = QVProgramResult;
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& args,
                         const std::string* input = nullptr);

// Polls `done` every 20 ms until it is true or the time is up.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

// --------------------------------------------------------------- runtime directory

// The private directory (0700) under which attachments keep their state:
// $XDG_RUNTIME_DIR/qv-image, else /run/user/<uid>/qv-image, else /tmp/qv-image-<uid>.
bool runtimeBase(std::string* base, QVError* error);

// What an attachment leaves in its directory, so that detach finds everything.
struct Attachment {
    std::string dir;         // the attachment's own directory
    std::string image;       // the image, absolute
    std::string devEntry;    // the decrypted disk file
    std::string mountPoint;  // empty without a mount
    std::string layer;       // "fuse2fs" or "kernel"
    std::string loopDevice;  // the kernel layer's loop device
    pid_t devicePid = 0;
    pid_t fsPid = 0;  // fuse2fs
};
// <dir>/attachment.plist, replaced atomically.
bool writeAttachment(const Attachment& a, QVError* error);
std::optional<Attachment> readAttachment(const std::string& dir);
// Every attachment directory under the runtime base.
std::vector<std::string> attachmentDirs(const std::string& base);

// The device directory of an attachment: the FUSE mount point holding `disk`.
inline std::string deviceDirOf(const std::string& attachmentDir) { return attachmentDir + "/dev"; }
inline std::string devEntryOf(const std::string& attachmentDir) { return attachmentDir + "/dev/disk"; }
inline std::string lockFileOf(const std::string& attachmentDir) { return attachmentDir + "/lock"; }
// Held by a detach so that the device process does not flush the volume meanwhile.
inline std::string flushLockOf(const std::string& attachmentDir) { return attachmentDir + "/flush.lock"; }

// Removes an attachment directory whose device process is gone: unmounts a
// dead device mount lazily, then deletes the files and the directory.
void removeAttachmentDir(const std::string& dir);
// Takes away the attachment in `dir` when its device process has died (its
// volume unmounted lazily, whoever holds it) and answers true; false, with
// nothing changed, while the process lives or the directory is being set up.
bool sweepIfDead(const std::string& dir);
// Removes the directories of attachments whose device process has died.
void sweepStaleAttachments(const std::string& base);

} // namespace qv::image

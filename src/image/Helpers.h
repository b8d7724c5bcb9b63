#pragma once
// The helper programs qv-image drives (by absolute path, never with a secret in
// their arguments), the mount table, and the runtime directory where attached
// images keep their record.
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "image/ImageTool.h"

namespace qv::image {

// Absolute paths of the helpers.
inline constexpr const char* kMkfsExt4 = "/usr/sbin/mkfs.ext4";
inline constexpr const char* kE2fsck = "/usr/sbin/e2fsck";
inline constexpr const char* kResize2fs = "/usr/sbin/resize2fs";
inline constexpr const char* kDebugfs = "/usr/sbin/debugfs";
inline constexpr const char* kFuse2fs = "/usr/bin/fuse2fs";
inline constexpr const char* kFuse2fsSpeedOptions = "big_writes,max_write=131072";
inline constexpr const char* kFusermount3 = "/usr/bin/fusermount3";
inline constexpr const char* kMount = "/usr/bin/mount";
inline constexpr const char* kUmount = "/usr/bin/umount";
inline constexpr const char* kLosetup = "/usr/sbin/losetup";

struct ProgramResult {
    bool started = false;
    bool exited = false;
    int status = -1;  // exit status when exited
    int signal = 0;   // when killed by a signal
    std::string out;
    std::string err;

    bool ok() const { return exited && status == 0; }
    // One line for an error message: the program's last words, or how it ended.
    std::string summary() const;
};

// Runs a program with standard input from /dev/null (or the given bytes),
// standard output and error captured, every other descriptor closed, and the
// C locale so that its output can be parsed.
ProgramResult runProgram(const std::string& path, const std::vector<std::string>& args,
                         const std::string* input = nullptr);

// Polls `done` every 20 ms until it is true or the time is up.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

// --------------------------------------------------------------- mount table

struct MountEntry {
    std::string mountPoint;
    std::string fsType;
    std::string source;
};
std::vector<MountEntry> readMountTable();
std::optional<MountEntry> mountAt(const std::string& path);

// The file behind a loop device ("/dev/loop3"), empty when it has none.
std::string loopBackingFile(const std::string& device);
// Loop devices whose backing file is `file`.
std::vector<std::string> loopDevicesOf(const std::string& file);

// --------------------------------------------------------------- processes

bool processAlive(pid_t pid);  // exists and is not a zombie
std::string processName(pid_t pid);  // the command name of /proc/<pid>/comm
// The first process whose argument vector is exactly `argv`, 0 when none.
pid_t findProcessByArguments(const std::vector<std::string>& argv);

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
// Removes the directories of attachments whose device process has died.
void sweepStaleAttachments(const std::string& base);

} // namespace qv::image

#pragma once
// Steps that several verbs share: the password, a disk served for the length
// of one verb, and the state of the ext4 file system on a disk.
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"

namespace qv::image {

// The password when -stdinpass is given; with `required` its absence is a usage error.
bool readPasswordIfGiven(const ParsedArguments& args, bool required, SecureBytes* password, QVError* error);

// The steps of a verb that changes an image offline (compact, resize): the
// password from standard input, the image opened and locked against every
// other use, its key unwrapped. The password is wiped before returning.
bool openLockedWithKey(const ParsedArguments& args, ImageBundle* image, SecureBytes* key, QVError* error);

// A disk served by a child device process while a verb works on it (create,
// compact, resize). Stopped at the end, or when this object goes away.
class TemporaryDevice {
public:
    TemporaryDevice() = default;
    ~TemporaryDevice();
    TemporaryDevice(const TemporaryDevice&) = delete;
    TemporaryDevice& operator=(const TemporaryDevice&) = delete;

    // `size` 0: the image's size. The key is handed to the device process and
    // wiped here.
    bool start(ImageBundle& image, SecureBytes& key, uint64_t size, QVError* error);
    const std::string& disk() const { return disk_; }
    // Stops the device process once everything is written out.
    bool stop(QVError* error);

private:
    std::string dir_;
    std::string disk_;
    pid_t pid_ = 0;
};

struct FileSystemState {
    bool clean = false;        // unmounted cleanly, no errors, no journal to replay
    uint64_t blockSize = 0;
    uint64_t blocks = 0;       // size of the file system in blocks
    uint64_t freeBlocks = 0;
};
// Reads the ext4 superblock of a disk; fails when there is no ext4 on it.
bool readFileSystemState(const std::string& disk, FileSystemState* state, QVError* error);

// Room the disk holding an image must have before its file system is mounted
// or repaired. A write the disk refuses for want of space reaches the file
// system above it late, through the page cache, and neither fuse2fs, the
// kernel's ext4 on a loop device nor e2fsck takes such a late refusal well:
// a repair run on a full disk was seen to lose data that had been synced.
inline constexpr uint64_t kRoomToChange = 32ull << 20;
// Fails with exit 7 when the file system holding `image` has less than
// kRoomToChange free for the caller; `purpose` completes "not enough space ... to".
bool ensureRoomToChange(const ImageBundle& image, const std::string& purpose, QVError* error);

// Repairs the file system when it was not left clean (always with `force`):
// e2fsck -p first, e2fsck -y when that is not enough. A repair is refused
// (exit 7) while the disk holding `image` lacks the room for it.
bool checkFileSystem(const ImageBundle& image, const std::string& disk, bool force, QVError* error);

} // namespace qv::image

#include "image/VerbSupport.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <ext2fs/ext2_fs.h>
#include <ext2fs/ext2fs.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "image/DeviceProcess.h"
#include "image/Helpers.h"
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"

namespace qv::image {

bool readPasswordIfGiven(const ParsedArguments& args, bool required, SecureBytes* password, QVError* error) {
    if (!args.has("-stdinpass")) {
        if (required)
            return fail(error, QVImageExitUsage, "-stdinpass is required: the password comes on standard input");
        return true;
    }
    return readPasswordFromStdin(password, error);
}

bool openLockedWithKey(const ParsedArguments& args, ImageBundle* image, SecureBytes* key, QVError* error) {
    SecureBytes password;
    if (!readPasswordIfGiven(args, true, &password, error)) return false;
    if (!image->open(args.positional, error) || !image->lock(error)) return false;
    const bool unwrapped = image->unwrapKey(password, key, error);
    password.clear();
    return unwrapped;
}

TemporaryDevice::~TemporaryDevice() {
    if (pid_ > 0) {
        QVError ignored;
        stop(&ignored);
    }
}

bool TemporaryDevice::start(ImageBundle& image, SecureBytes& key, uint64_t size, QVError* error) {
    std::string base;
    if (!runtimeBase(&base, error)) {
        key.clear();
        return false;
    }
    UniqueFd lock;
    if (!makeAttachmentDir(base, &dir_, &lock, error)) {
        key.clear();
        return false;
    }
    DeviceOptions options;
    options.attachmentDir = dir_;
    options.detached = false;
    options.size = size;
    const bool started = startDeviceServer(image, key, options, lock.get(), &pid_, error);
    // The attachment's lock stays with the device process alone, so that its end can be seen.
    lock.reset();
    if (!started) {
        removeAttachmentDir(dir_);
        pid_ = 0;
        return false;
    }
    disk_ = devEntryOf(dir_);
    return true;
}

bool TemporaryDevice::stop(QVError* error) {
    if (pid_ <= 0) return true;
    const pid_t pid = pid_;
    pid_ = 0;
    return stopDeviceServer(dir_, pid, true, std::chrono::minutes(5), error);
}

bool readFileSystemState(const std::string& disk, FileSystemState* state, QVError* error) {
    const UniqueFd fd(::open(disk.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return failErrno(error, errno, "cannot open the disk");
    ext2_super_block sb {};
    ssize_t n = ::pread(fd.get(), &sb, sizeof sb, SUPERBLOCK_OFFSET);
    const int err = errno;
    if (n < 0) return failErrno(error, err, "cannot read the disk");
    if (size_t(n) != sizeof sb || sb.s_magic != EXT2_SUPER_MAGIC || sb.s_log_block_size > 6)
        return fail(error, QVImageExitNotAnImage,
                    "the image holds no ext4 file system (wrong password for a damaged image?)");
    state->clean = (sb.s_state & EXT2_VALID_FS) && !(sb.s_state & EXT2_ERROR_FS) &&
                   !ext2fs_has_feature_journal_needs_recovery(&sb);
    state->blockSize = uint64_t(EXT2_MIN_BLOCK_SIZE) << sb.s_log_block_size;
    state->blocks = ext2fs_blocks_count(&sb);
    state->freeBlocks = ext2fs_free_blocks_count(&sb);
    return true;
}

bool ensureRoomToChange(const ImageBundle& image, const std::string& purpose, QVError* error) {
    struct statvfs vfs {};
    if (::fstatvfs(image.directoryFd(), &vfs) != 0) return failErrno(error, errno, "cannot read the free space next to the image");
    const uint64_t room = uint64_t(vfs.f_bavail) * vfs.f_frsize;
    if (room >= kRoomToChange) return true;
    return fail(error, QVImageExitNoSpace,
                QVFormat("not enough space on the disk holding the image to %s it (%llu MiB free, %llu MiB needed)",
                         purpose.c_str(), static_cast<unsigned long long>(room >> 20),
                         static_cast<unsigned long long>(kRoomToChange >> 20)));
}

bool checkFileSystem(const ImageBundle& image, const std::string& disk, bool force, QVError* error) {
    FileSystemState state;
    if (!readFileSystemState(disk, &state, error)) return false;
    if (state.clean && !force) return true;
    if (!ensureRoomToChange(image, "repair", error)) return false;
    // Exit status bits: 1 errors fixed, 2 reboot advised (meaningless for an
    // image), 4 errors left, 8 and up the check itself failed.
    auto fixed = [](const ProgramResult& r) { return r.exited && (r.status & ~3) == 0; };
    std::vector<std::string> args{"-p"};
    if (force) args.push_back("-f");
    args.push_back(disk);
    ProgramResult r = runProgram(kE2fsck, args);
    if (fixed(r)) return true;
    if (r.exited && r.status == 4) {
        // Preen mode stops at problems it won't fix unattended; the file system
        // can't be mounted without fixing them.
        QV_LOG_WARN("e2fsck -p could not repair " + disk + " on its own: " + r.summary() + "; running e2fsck -y");
        r = runProgram(kE2fsck, {"-f", "-y", disk});
        if (fixed(r)) return true;
    }
    // The repair writes; with the disk holding the image full it can't, and
    // the caller is told what to do about it (the output is in the C locale).
    if ((r.out + r.err).find(std::strerror(ENOSPC)) != std::string::npos)
        return fail(error, QVImageExitNoSpace,
                    "not enough space on the disk holding the image to repair its file system");
    return fail(error, QVImageExitFailure, "the file system check failed: " + r.summary());
}

} // namespace qv::image

#include "disk/CopyEngine.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "disk/Acl.h"
#include "disk/ExtendedAttributes.h"
#include "disk/RenameAt.h"
#include "disk/SizeWalk.h"
#include "disk/TreeCopy.h"
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "toolkit/WriteAll.h"

namespace qv {
namespace {

using copyengine::DirStream;
using copyengine::isDotOrDotDot;
using copyengine::TreeCopy;

// Removes the tree at `name` in `parent`. Folders we may not change are opened
// up for their owner first: whoever asks for the removal owns what goes.
int removeTreeAt(int parent, const char* name) {
    struct stat st;
    if (::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(parent, name, 0) == 0 || errno == ENOENT ? 0 : errno;
    if ((st.st_mode & S_IRWXU) != S_IRWXU) ::fchmodat(parent, name, (st.st_mode & 07777) | S_IRWXU, 0);
    int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return errno;
    DirStream dir(::fdopendir(fd), &::closedir);
    if (!dir) {
        int err = errno;
        ::close(fd);
        return err;
    }
    int result = 0;
    for (;;) {
        errno = 0;
        struct dirent* d = ::readdir(dir.get());
        if (!d) {
            if (errno != 0 && result == 0) result = errno;
            break;
        }
        if (isDotOrDotDot(d->d_name)) continue;
        int err = removeTreeAt(::dirfd(dir.get()), d->d_name);
        if (err != 0 && result == 0) result = err;
    }
    dir.reset();
    if (::unlinkat(parent, name, AT_REMOVEDIR) != 0 && result == 0) result = errno;
    return result;
}

int removeTree(const std::string& path) {
    UniqueFd parent(::open(QVParentPath(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent) return errno;
    return removeTreeAt(parent.get(), QVLastPathComponent(path).c_str());
}

// A fresh name that is nobody's in `dir`, for work in progress.
std::string randomName(const char* prefix) {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    unsigned char bytes[10];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        for (unsigned char& b : bytes) b = static_cast<unsigned char>(std::rand());
    }
    std::string name = prefix;
    for (unsigned char b : bytes) name.push_back(alphabet[b % (sizeof alphabet - 1)]);
    return name;
}

// Whether the directory `dir` lies inside (or is) the directory `tree`.
bool isInside(const std::string& dir, const struct stat& tree) {
    std::string p = dir;
    for (int depth = 0; depth < 4096; ++depth) {
        struct stat st;
        if (::stat(p.c_str(), &st) != 0) return false;
        if (st.st_dev == tree.st_dev && st.st_ino == tree.st_ino) return true;
        struct stat up;
        std::string parent = p + "/..";
        if (::stat(parent.c_str(), &up) != 0) return false;
        if (up.st_dev == st.st_dev && up.st_ino == st.st_ino) return false;  // reached "/"
        p = parent;
    }
    return false;
}

// What one step of the operation ended with: 0, 1000, 1006 or an errno.
struct Outcome {
    long code = 0;
    std::string description;  // set where a lower error had one of its own
};

long copyOutcome(const TreeCopy& copy) {
    if (copy.cancelled()) return QVErrorCancelled;
    return copy.errorCode();
}

// Measures the source and checks that the destination has room for it.
long preflight(const std::string& source, const std::string& destination, uint64_t& totalBytes) {
    int64_t bytes = fastFolderSizeAtFSRef(source, nullptr);
    if (bytes >= 0) totalBytes = static_cast<uint64_t>(bytes);
    int64_t blocks = num512BlocksInDir(source);
    struct statvfs vfs;
    if (blocks >= 0 && ::statvfs(destination.c_str(), &vfs) == 0) {
        const uint64_t room = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
        if (static_cast<uint64_t>(blocks) * 512 > room) {
            QV_LOG_ERROR(QVFormat("not enough room in '%s' for '%s': %llu bytes needed, %llu free",
                                  destination.c_str(), source.c_str(),
                                  static_cast<unsigned long long>(blocks) * 512ull,
                                  static_cast<unsigned long long>(room)));
            return ENOSPC;
        }
    }
    return 0;
}

// Puts the finished item `staged` in place of `name` in `dir`, then removes what was there.
long replaceWith(int dir, const std::string& staged, const std::string& name) {
    if (::renameat2(dir, staged.c_str(), dir, name.c_str(), RENAME_EXCHANGE) == 0) {
        int err = removeTreeAt(dir, staged.c_str());
        if (err != 0) QV_LOG_WARN(QVFormat("couldn't remove the replaced '%s': %s", name.c_str(), std::strerror(err)));
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) return errno;
    // No exchange here: step the old item aside, then bring the new one in.
    const std::string aside = randomName(".qvold-");
    if (int err = QVRenameNoReplaceAt(dir, name.c_str(), dir, aside.c_str()); err != 0) return err;
    if (::renameat(dir, staged.c_str(), dir, name.c_str()) != 0) {
        int err = errno;
        ::renameat(dir, aside.c_str(), dir, name.c_str());
        return err;
    }
    removeTreeAt(dir, aside.c_str());
    return 0;
}

long copyItem(const std::string& source, int dstDir, const std::string& destination, const std::string& name,
              unsigned options, const QVCopyCancelBlock& callback, uint64_t totalBytes) {
    struct stat src;
    if (::lstat(source.c_str(), &src) != 0) return errno;
    if (S_ISDIR(src.st_mode) && isInside(destination, src)) {
        QV_LOG_ERROR(QVFormat("can't copy '%s' into itself ('%s')", source.c_str(), destination.c_str()));
        return EINVAL;
    }
    struct stat existing;
    const bool exists = ::fstatat(dstDir, name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !(options & QVFileOperationOverwrite)) {
        QV_LOG_ERROR(QVFormat("destination exists: %s", QVPathByAppendingComponent(destination, name).c_str()));
        return EEXIST;
    }
    const std::string target = exists ? randomName(".qvcopy-") : name;
    TreeCopy copy(options, callback, totalBytes);
    copy.run(source, dstDir, target, false);
    long code = copyOutcome(copy);
    if (code != 0 || !exists) return code;
    return replaceWith(dstDir, target, name);
}

long moveItem(const std::string& source, int dstDir, const std::string& destination, const std::string& name,
              unsigned options, const QVCopyCancelBlock& callback) {
    struct stat existing;
    const bool exists = ::fstatat(dstDir, name.c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !(options & QVFileOperationOverwrite)) {
        QV_LOG_ERROR(QVFormat("destination exists: %s", QVPathByAppendingComponent(destination, name).c_str()));
        return EEXIST;
    }
    int moved = 0;
    if (!exists) {
        moved = QVRenameNoReplaceAt(AT_FDCWD, source.c_str(), dstDir, name.c_str());
        if (moved == 0) return 0;
    } else if (::renameat2(AT_FDCWD, source.c_str(), dstDir, name.c_str(), RENAME_EXCHANGE) == 0) {
        // The replaced item now sits where the source was.
        int err = removeTree(source);
        if (err != 0) QV_LOG_WARN(QVFormat("couldn't remove the replaced '%s': %s", name.c_str(), std::strerror(err)));
        return 0;
    } else {
        moved = errno;
        if (moved == EINVAL || moved == ENOSYS || moved == ENOTSUP) {
            // No exchange on this file system: step the old item aside, bring the source in.
            const std::string aside = randomName(".qvold-");
            if (int err = QVRenameNoReplaceAt(dstDir, name.c_str(), dstDir, aside.c_str()); err != 0) return err;
            moved = QVRenameNoReplaceAt(AT_FDCWD, source.c_str(), dstDir, name.c_str());
            if (moved != 0) {
                ::renameat(dstDir, aside.c_str(), dstDir, name.c_str());
            } else {
                int err = removeTreeAt(dstDir, aside.c_str());
                if (err != 0) QV_LOG_WARN(QVFormat("couldn't remove the replaced '%s': %s", name.c_str(), std::strerror(err)));
                return 0;
            }
        }
    }
    if (moved != EXDEV) return moved;
    if (options & QVFileOperationDoNotMoveAcrossVolumes) return EXDEV;

    uint64_t totalBytes = 0;
    if (!(options & QVFileOperationSkipPreflight)) {
        long code = preflight(source, destination, totalBytes);
        if (code != 0) return code;
    }
    // Nothing may be left out of a copy whose source is removed afterwards.
    long code = copyItem(source, dstDir, destination, name, options & ~QVFileOperationSkipSourcePermissionErrors,
                         callback, totalBytes);
    if (code != 0) return code;
    // The source goes only once its copy is safely on disk.
    if (::syncfs(dstDir) != 0) return errno;
    int err = removeTree(source);
    if (err != 0) {
        QV_LOG_ERROR(QVFormat("copied '%s', but couldn't remove it afterwards: %s", source.c_str(), std::strerror(err)));
        return err;
    }
    return 0;
}

bool inSkipList(const char* name) {
    const auto& skip = QVLiftSkipList();
    return std::find(skip.begin(), skip.end(), name) != skip.end();
}

// Renames `name` from `from` into `to`, never over an existing item. A folder
// that its owner made read-only can't be moved to another parent as it is (its
// ".." changes), so it is opened for the owner for the moment of the move.
int liftOne(int from, const char* name, int to) {
    int err = QVRenameNoReplaceAt(from, name, to, name);
    if (err == 0) return 0;
    struct stat st;
    if (err != EACCES || ::fstatat(from, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
        (st.st_mode & S_IWUSR))
        return err;
    if (::fchmodat(from, name, (st.st_mode & 07777) | S_IWUSR, 0) != 0) return err;
    if ((err = QVRenameNoReplaceAt(from, name, to, name)) != 0) {
        ::fchmodat(from, name, st.st_mode & 07777, 0);
        return err;
    }
    ::fchmodat(to, name, st.st_mode & 07777, 0);
    return 0;
}

Outcome copyAndLift(const std::string& source, int dstDir, const std::string& destination, unsigned options,
                    const QVCopyCancelBlock& callback, uint64_t totalBytes) {
    struct stat src;
    if (::stat(source.c_str(), &src) != 0) return {errno, {}};
    if (!S_ISDIR(src.st_mode)) return {ENOTDIR, {}};
    if (isInside(destination, src)) {
        QV_LOG_ERROR(QVFormat("can't copy '%s' into itself ('%s')", source.c_str(), destination.c_str()));
        return {EINVAL, {}};
    }
    // The copy lands in a private folder first: the source's own name could be
    // one of its children's, and a child can't be lifted onto its parent.
    std::string working;
    for (int attempt = 0;; ++attempt) {
        working = randomName(QVCopyWorkingPrefix);
        if (::mkdirat(dstDir, working.c_str(), 0700) == 0) break;
        if (errno != EEXIST || attempt > 20) return {errno, {}};
    }
    TreeCopy copy(options, callback, totalBytes);
    copy.run(source, dstDir, working, true);
    long code = copyOutcome(copy);
    if (code != 0) return {code, {}};

    UniqueFd work(::openat(dstDir, working.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    DirStream dir(work ? ::fdopendir(work.get()) : nullptr, &::closedir);
    if (!dir) {
        int err = errno;
        QV_LOG_FAILED("!subitems");
        return {err, std::strerror(err)};
    }
    work.release();
    std::vector<std::string> children;
    for (;;) {
        errno = 0;
        struct dirent* d = ::readdir(dir.get());
        if (!d) {
            if (errno != 0) {
                int err = errno;
                QV_LOG_FAILED("!subitems");
                return {err, std::strerror(err)};
            }
            break;
        }
        if (!isDotOrDotDot(d->d_name)) children.emplace_back(d->d_name);
    }
    bool success = true;
    const std::string workingPath = QVPathByAppendingComponent(destination, working);
    for (const std::string& child : children) {
        if (inSkipList(child.c_str())) continue;
        int err = liftOne(::dirfd(dir.get()), child.c_str(), dstDir);
        if (err != 0) {
            QV_LOG_WARN(QVFormat("failed to move: '%s' => '%s': %s",
                                 QVPathByAppendingComponent(workingPath, child).c_str(),
                                 QVPathByAppendingComponent(destination, child).c_str(), std::strerror(err)));
            success = false;
        }
    }
    dir.reset();
    if (!success) {
        QV_LOG_FAILED("!success");
        return {QVErrorPartialRestore, {}};
    }
    int err = removeTreeAt(dstDir, working.c_str());
    if (err != 0) QV_LOG_WARN(QVFormat("couldn't remove '%s': %s", workingPath.c_str(), std::strerror(err)));
    return {0, {}};
}

bool validName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

} // namespace

int QVRemoveTree(const std::string& path) { return removeTree(path); }

const std::vector<std::string>& QVLiftSkipList() {
    static const std::vector<std::string> names{
        ".DS_Store", ".Trashes", ".fseventsd", ".Spotlight-V100", ".com.apple.timemachine.supported",
        ".VolumeIcon.icns", "Icon\r", ".DocumentRevisions-V100", ".hotfiles.btree",
        // A volume's own: its repair folder, its list of hidden names, its icon.
        "lost+found", ".hidden", ".VolumeIcon.png"};
    return names;
}

bool copyOrMoveContentsFrom(const std::string& source, const std::string& destination,
                            const std::optional<std::string>& destinationName, unsigned options, bool upOneLevel,
                            const QVCopyCancelBlock& cancelBlock, bool move, QVError* error) {
    if (error) *error = QVError{};
    Outcome outcome;
    const std::string name = destinationName ? *destinationName : QVLastPathComponent(source);
    UniqueFd dstDir;
    if (source.empty() || !validName(name)) {
        outcome.code = EINVAL;
    } else {
        dstDir = UniqueFd(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!dstDir) outcome.code = errno;
    }
    if (outcome.code == 0) {
        if (move) {
            outcome.code = moveItem(source, dstDir.get(), destination, name, options, cancelBlock);
        } else {
            uint64_t totalBytes = 0;
            if (!(options & QVFileOperationSkipPreflight)) outcome.code = preflight(source, destination, totalBytes);
            if (outcome.code == 0) {
                if (upOneLevel)
                    outcome = copyAndLift(source, dstDir.get(), destination, options, cancelBlock, totalBytes);
                else
                    outcome.code = copyItem(source, dstDir.get(), destination, name, options, cancelBlock, totalBytes);
            }
        }
    }
    if (outcome.code == 0) return true;

    QV_LOG_ERROR(QVFormat("error %ld durng copy of: %s", outcome.code, source.c_str()));
    std::string reason = outcome.description;
    if (reason.empty()) {
        if (outcome.code == QVErrorCancelled)
            reason = "cancelled";
        else if (outcome.code > 0 && outcome.code < 4096)
            reason = std::strerror(static_cast<int>(outcome.code));
        else
            reason = std::to_string(outcome.code);
    }
    QVSetAppError(error, outcome.code,
                  QVFormat("Error during copy: %s\n\nCould not copy all of: %s\n\nSee system log for more.",
                           reason.c_str(), source.c_str()));
    return false;
}

bool moveContentsFrom(const std::string& source, const std::string& destination,
                      const std::optional<std::string>& destinationName, unsigned options,
                      const QVCopyCancelBlock& cancelBlock, QVError* error) {
    return copyOrMoveContentsFrom(source, destination, destinationName, options, true, cancelBlock, true, error);
}

bool copyContentsFrom(const std::string& source, const std::string& destination, unsigned options,
                      const QVCopyCancelBlock& cancelBlock, QVError* error) {
    return copyOrMoveContentsFrom(source, destination, std::nullopt, options, true, cancelBlock, false, error);
}

bool copyContentsFrom(const std::string& source, const std::string& destination,
                      const std::optional<std::string>& destinationName, unsigned options, bool upOneLevel,
                      const QVCopyCancelBlock& cancelBlock, QVError* error) {
    return copyOrMoveContentsFrom(source, destination, destinationName, options, upOneLevel, cancelBlock, false,
                                  error);
}

} // namespace qv

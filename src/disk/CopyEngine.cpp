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
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "toolkit/WriteAll.h"

namespace qv {
namespace {

std::atomic<long long> gStatusIntervalMs{1000};

constexpr size_t kChunk = 4 << 20;

using DirStream = std::unique_ptr<DIR, int (*)(DIR*)>;

bool isDotOrDotDot(const char* n) { return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0')); }

std::string joinPath(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

// A path through which the *at-less libraries reach an entry of an open directory.
std::string procPath(int dirFd, const char* name) {
    return "/proc/self/fd/" + std::to_string(dirFd) + "/" + name;
}

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

// Copies one item (and all below it) to a new item in an open directory.
class TreeCopy {
public:
    TreeCopy(unsigned options, const QVCopyCancelBlock& callback, uint64_t totalBytes)
        // The first item reports at once: a cancel asked for before the copy
        // began stops it there, however short the copy.
        : options_(options), callback_(callback), start_(std::chrono::steady_clock::now()),
          lastStatus_(start_ - std::chrono::hours(1)) {
        status_.totalBytes = totalBytes;
    }

    // `source` to `dstName` in `dstDir`; with `intoExisting` the source is a
    // folder and `dstName` a folder we made for it, which takes its contents.
    bool run(const std::string& source, int dstDir, const std::string& dstName, bool intoExisting) {
        sourceRoot_ = source;
        // Contents are taken from the folder a link leads to; an item is copied as it is.
        struct stat st;
        if (::fstatat(AT_FDCWD, source.c_str(), &st, intoExisting ? 0 : AT_SYMLINK_NOFOLLOW) != 0)
            return fail(errno, "stat");
        if (S_ISDIR(st.st_mode)) {
            UniqueFd src(::openat(AT_FDCWD, source.c_str(),
                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | (intoExisting ? 0 : O_NOFOLLOW)));
            if (!src) return fail(errno, "open");
            return copyDirectory(std::move(src), st, dstDir, dstName.c_str(), intoExisting, true);
        }
        if (intoExisting) return fail(ENOTDIR, "open");
        UniqueFd parent(::open(QVParentPath(source).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!parent) return fail(errno, "open parent");
        const std::string name = QVLastPathComponent(source);
        return copyEntry(parent.get(), name.c_str(), st, dstDir, dstName.c_str());
    }

    bool cancelled() const { return cancelled_; }
    int errorCode() const { return error_; }
    const QVCopyStatus& status() const { return status_; }

private:
    std::string currentPath(const char* name = nullptr) const {
        std::string p = sourceRoot_;
        for (const std::string& n : trail_) p = joinPath(p, n);
        if (name) p = joinPath(p, name);
        return p;
    }

    std::string relativePath(const char* name) const {
        std::string p;
        for (const std::string& n : trail_) p = joinPath(p, n);
        return joinPath(p, name);
    }

    bool fail(int err, const char* what, const char* name = nullptr) {
        if (error_ == 0 && !cancelled_) {
            error_ = err == 0 ? EIO : err;
            QV_LOG_ERROR(QVFormat("failed to copy '%s' (%s): %s", currentPath(name).c_str(), what,
                                  std::strerror(error_)));
        }
        return false;
    }

    // A source item that couldn't be read: gone since the listing (nothing to
    // copy), left out when the options allow it for want of permission, or the
    // end of the copy. True to go on.
    bool leaveOut(int err, const char* what, const char* name) {
        if (err == ENOENT) return true;
        if ((options_ & QVFileOperationSkipSourcePermissionErrors) && (err == EACCES || err == EPERM)) {
            QV_LOG_WARN(QVFormat("skipped unreadable item: '%s': %s", currentPath(name).c_str(), std::strerror(err)));
            return true;
        }
        return fail(err, what, name);
    }

    // Counts progress, and about once an interval tells the caller, who may cancel.
    bool advance(uint64_t bytes, const char* name) {
        status_.bytesCompleted += bytes;
        const auto now = std::chrono::steady_clock::now();
        if (now - lastStatus_ < std::chrono::milliseconds(gStatusIntervalMs.load())) return true;
        lastStatus_ = now;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        status_.throughput = seconds > 0 ? static_cast<double>(status_.bytesCompleted) / seconds : 0;
        status_.currentItem = currentPath(name);
        if (callback_ && callback_(0, status_)) {
            cancelled_ = true;
            return false;
        }
        return true;
    }

    bool itemDone(uint64_t bytes, const char* name) {
        ++status_.itemsCompleted;
        return advance(bytes, name);
    }

    bool copyEntry(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
        switch (st.st_mode & S_IFMT) {
        case S_IFDIR: {
            UniqueFd sub(::openat(srcDir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!sub) return leaveOut(errno, "open", name);
            trail_.emplace_back(name);
            bool ok = copyDirectory(std::move(sub), st, dstDir, dstName, false, false);
            trail_.pop_back();
            return ok && itemDone(0, name);
        }
        case S_IFREG:
            return copyRegular(srcDir, name, st, dstDir, dstName);
        case S_IFLNK:
            return copySymlink(srcDir, name, st, dstDir, dstName);
        default:
            return copySpecial(srcDir, name, st, dstDir, dstName);
        }
    }

    bool copyDirectory(UniqueFd src, const struct stat& st, int dstDir, const char* dstName, bool intoExisting,
                       bool root) {
        if (!intoExisting && ::mkdirat(dstDir, dstName, 0700) != 0) return fail(errno, "mkdir");
        UniqueFd dst(::openat(dstDir, dstName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!dst) return fail(errno, "open destination");
        if (root) dstRoot_ = dst.get();
        DirStream dir(::fdopendir(src.get()), &::closedir);
        if (!dir) return fail(errno, "list");
        src.release();
        const int srcFd = ::dirfd(dir.get());
        for (;;) {
            errno = 0;
            struct dirent* d = ::readdir(dir.get());
            if (!d) {
                if (errno != 0) return fail(errno, "list");
                break;
            }
            if (isDotOrDotDot(d->d_name)) continue;
            struct stat child;
            if (::fstatat(srcFd, d->d_name, &child, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) continue;  // gone since the listing
                return fail(errno, "stat", d->d_name);
            }
            if (!copyEntry(srcFd, d->d_name, child, dst.get(), d->d_name)) return false;
        }
        if (intoExisting) return true;
        return applyMetadata(srcFd, dst.get(), st, true, nullptr);
    }

    bool copyRegular(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
        const LinkKey key{st.st_dev, st.st_ino};
        if (st.st_nlink >= 2 && dstRoot_ >= 0) {
            auto it = links_.find(key);
            if (it != links_.end()) {
                if (::linkat(dstRoot_, it->second.c_str(), dstDir, dstName, 0) == 0) return itemDone(st.st_size, name);
                if (errno != EMLINK && errno != EPERM && errno != ENOTSUP && errno != EXDEV)
                    return fail(errno, "link", name);
                QV_LOG_WARN(QVFormat("can't link '%s' to its other name; copied instead: %s",
                                     currentPath(name).c_str(), std::strerror(errno)));
            }
        }
        UniqueFd in(::openat(srcDir, name, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
        if (!in) return leaveOut(errno, "open", name);
        struct stat now;
        if (::fstat(in.get(), &now) != 0) return fail(errno, "stat", name);
        UniqueFd out(::openat(dstDir, dstName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!out) return fail(errno, "create", name);
        bool ok = copyData(in.get(), out.get(), now.st_size, name) &&
                  applyMetadata(in.get(), out.get(), now, false, name);
        if (ok && ::close(out.release()) != 0) ok = fail(errno, "close", name);
        if (!ok) {
            // No half-copied file stays behind.
            ::unlinkat(dstDir, dstName, 0);
            return false;
        }
        if (now.st_nlink >= 2 && dstRoot_ >= 0) {
            try {
                links_.emplace(key, relativePath(dstName));
            } catch (const std::bad_alloc&) {
                // The next name of this file becomes a copy of its own.
            }
        }
        return itemDone(0, name);
    }

    // The data of a file, holes kept as holes.
    bool copyData(int in, int out, off_t size, const char* name) {
        off_t pos = 0;
        bool holesKnown = true;
        while (pos < size) {
            off_t dataStart = pos;
            off_t dataEnd = size;
            if (holesKnown) {
                off_t data = ::lseek(in, pos, SEEK_DATA);
                if (data < 0) {
                    if (errno == ENXIO) {  // only a hole is left
                        if (!advance(static_cast<uint64_t>(size - pos), name)) return false;
                        break;
                    }
                    if (errno != EINVAL && errno != ENOTSUP && errno != EOPNOTSUPP) return fail(errno, "seek", name);
                    holesKnown = false;
                } else {
                    dataStart = std::min(data, size);
                    off_t hole = ::lseek(in, dataStart, SEEK_HOLE);
                    dataEnd = hole < 0 ? size : std::min(hole, size);
                    if (dataStart > pos && !advance(static_cast<uint64_t>(dataStart - pos), name)) return false;
                }
            }
            bool atEnd = false;
            if (!copyRange(in, out, dataStart, dataEnd, name, atEnd)) return false;
            pos = dataEnd;
            if (atEnd) break;  // the file shrank while we read it
        }
        if (::ftruncate(out, size) != 0) return fail(errno, "truncate", name);
        return true;
    }

    bool copyRange(int in, int out, off_t start, off_t end, const char* name, bool& atEnd) {
        off_t off = start;
        while (off < end) {
            const size_t length = static_cast<size_t>(std::min<off_t>(end - off, kChunk));
            ssize_t n;
            if (useCopyFileRange_) {
                loff_t inOff = off, outOff = off;
                n = ::copy_file_range(in, &inOff, out, &outOff, length, 0);
                if (n < 0) {
                    if (errno == EINTR) continue;
                    if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
                        errno == ENOTSUP || errno == EBADF || errno == ETXTBSY) {
                        useCopyFileRange_ = false;
                        continue;
                    }
                    return fail(errno, "copy", name);
                }
            } else {
                if (buffer_.empty()) buffer_.resize(kChunk);
                n = ::pread(in, buffer_.data(), length, off);
                if (n < 0) {
                    if (errno == EINTR) continue;
                    return fail(errno, "read", name);
                }
                if (const int err = QVWriteAllAt(out, buffer_.data(), static_cast<size_t>(n), off))
                    return fail(err, "write", name);
            }
            if (n == 0) {
                atEnd = true;
                return true;
            }
            off += n;
            if (!advance(static_cast<uint64_t>(n), name)) return false;
        }
        return true;
    }

    // Attributes, owner, mode, ACLs and times, in the order that keeps each:
    // a change of owner clears set-id bits, so the mode follows it; writing
    // touches the times, so they come last.
    bool applyMetadata(int src, int dst, const struct stat& st, bool directory, const char* name) {
        std::string failedName;
        int err = QVCopyXattrs(src, dst, &failedName);
        if (err != 0) return fail(err, ("extended attribute " + failedName).c_str(), name);
        if (!chownAsAllowed([&](uid_t u, gid_t g) { return ::fchown(dst, u, g); }, st, name)) return false;
        if (::fchmod(dst, st.st_mode & 07777) != 0) return fail(errno, "chmod", name);
        err = QVCopyAcls(src, dst, directory);
        if (err != 0) return fail(err, "ACL", name);
        const struct timespec times[2] = {st.st_atim, st.st_mtim};
        if (::futimens(dst, times) != 0) return fail(errno, "set times", name);
        return true;
    }

    // As root the owner is kept; otherwise the group, where we belong to it.
    template <typename Chown>
    bool chownAsAllowed(Chown chown, const struct stat& st, const char* name) {
        if (::geteuid() == 0) return chown(st.st_uid, st.st_gid) == 0 || fail(errno, "chown", name);
        if (st.st_gid != ::getegid()) chown(static_cast<uid_t>(-1), st.st_gid);
        return true;
    }

    bool copySymlink(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
        std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 255) + 1, '\0');
        for (;;) {
            ssize_t n = ::readlinkat(srcDir, name, target.data(), target.size());
            if (n < 0) return leaveOut(errno, "readlink", name);
            if (static_cast<size_t>(n) < target.size()) {
                target.resize(static_cast<size_t>(n));
                break;
            }
            target.resize(target.size() * 2);
        }
        if (::symlinkat(target.c_str(), dstDir, dstName) != 0) return fail(errno, "symlink", name);
        return finishNonFile(srcDir, name, st, dstDir, dstName, false);
    }

    bool copySpecial(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
        if (::mknodat(dstDir, dstName, (st.st_mode & S_IFMT) | 0600, st.st_rdev) != 0)
            return fail(errno, "mknod", name);
        return finishNonFile(srcDir, name, st, dstDir, dstName, true);
    }

    // Metadata of items that can't be opened for it: links, FIFOs, sockets, devices.
    bool finishNonFile(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName,
                       bool hasMode) {
        bool ok = chownAsAllowed(
            [&](uid_t u, gid_t g) { return ::fchownat(dstDir, dstName, u, g, AT_SYMLINK_NOFOLLOW); }, st, name);
        if (ok && hasMode && ::fchmodat(dstDir, dstName, st.st_mode & 07777, 0) != 0) ok = fail(errno, "chmod", name);
        if (ok) {
            std::string failedName;
            int err = QVCopyXattrsNoFollow(procPath(srcDir, name), procPath(dstDir, dstName), &failedName);
            if (err != 0) ok = fail(err, ("extended attribute " + failedName).c_str(), name);
        }
        const struct timespec times[2] = {st.st_atim, st.st_mtim};
        if (ok && ::utimensat(dstDir, dstName, times, AT_SYMLINK_NOFOLLOW) != 0) ok = fail(errno, "set times", name);
        if (!ok) {
            ::unlinkat(dstDir, dstName, 0);
            return false;
        }
        return itemDone(static_cast<uint64_t>(S_ISLNK(st.st_mode) ? st.st_size : 0), name);
    }

    struct LinkKey {
        dev_t dev;
        ino_t ino;
        bool operator==(const LinkKey&) const = default;
    };
    struct LinkKeyHash {
        size_t operator()(const LinkKey& k) const noexcept {
            return std::hash<uint64_t>()(k.dev ^ (k.ino * 0x9E3779B97F4A7C15ull));
        }
    };

    unsigned options_;
    const QVCopyCancelBlock& callback_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastStatus_;
    QVCopyStatus status_;
    std::string sourceRoot_;
    std::vector<std::string> trail_;  // names from the source root down to the current folder
    int dstRoot_ = -1;                // the copied root folder, for hard links by relative path
    std::unordered_map<LinkKey, std::string, LinkKeyHash> links_;  // first copy of each multi-link inode
    std::vector<char> buffer_;
    bool useCopyFileRange_ = true;
    bool cancelled_ = false;
    int error_ = 0;
};

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
        QV_LOG_ERROR(QVFormat("destination exists: %s", joinPath(destination, name).c_str()));
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
        QV_LOG_ERROR(QVFormat("destination exists: %s", joinPath(destination, name).c_str()));
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
        working = randomName(".qvcopy-");
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
    const std::string workingPath = joinPath(destination, working);
    for (const std::string& child : children) {
        if (inSkipList(child.c_str())) continue;
        int err = liftOne(::dirfd(dir.get()), child.c_str(), dstDir);
        if (err != 0) {
            QV_LOG_WARN(QVFormat("failed to move: '%s' => '%s': %s", joinPath(workingPath, child).c_str(),
                                 joinPath(destination, child).c_str(), std::strerror(err)));
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

const std::vector<std::string>& QVLiftSkipList() {
    static const std::vector<std::string> names{
        ".DS_Store", ".Trashes", ".fseventsd", ".Spotlight-V100", ".com.apple.timemachine.supported",
        ".VolumeIcon.icns", "Icon\r", ".DocumentRevisions-V100", ".hotfiles.btree",
        // A volume's own: its repair folder, its list of hidden names, its icon.
        "lost+found", ".hidden", ".VolumeIcon.png"};
    return names;
}

void QVCopySetStatusInterval(std::chrono::milliseconds interval) { gStatusIntervalMs.store(interval.count()); }

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

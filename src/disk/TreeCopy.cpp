#include "disk/TreeCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "disk/Acl.h"
#include "disk/ExtendedAttributes.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "toolkit/WriteAll.h"

namespace qv {

namespace {

std::atomic<long long> gStatusIntervalMs{1000};

constexpr size_t kChunk = 4 << 20;

std::string joinPath(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

// A path through which the *at-less libraries reach an entry of an open directory.
std::string procPath(int dirFd, const char* name) { return "/proc/self/fd/" + std::to_string(dirFd) + "/" + name; }

} // namespace

void QVCopySetStatusInterval(std::chrono::milliseconds interval) { gStatusIntervalMs.store(interval.count()); }

namespace copyengine {

bool TreeCopy::run(const std::string& source, int dstDir, const std::string& dstName, bool intoExisting) {
    sourceRoot_ = source;
    // Contents are taken from the folder a link leads to; an item is copied as it is.
    struct stat st;
    if (::fstatat(AT_FDCWD, source.c_str(), &st, intoExisting ? 0 : AT_SYMLINK_NOFOLLOW) != 0)
        return fail(errno, "stat");
    if (S_ISDIR(st.st_mode)) {
        UniqueFd src(
            ::openat(AT_FDCWD, source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (intoExisting ? 0 : O_NOFOLLOW)));
        if (!src) return fail(errno, "open");
        return copyDirectory(std::move(src), st, dstDir, dstName.c_str(), intoExisting, true);
    }
    if (intoExisting) return fail(ENOTDIR, "open");
    UniqueFd parent(::open(QVParentPath(source).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent) return fail(errno, "open parent");
    const std::string name = QVLastPathComponent(source);
    return copyEntry(parent.get(), name.c_str(), st, dstDir, dstName.c_str());
}

std::string TreeCopy::currentPath(const char* name) const {
    std::string p = sourceRoot_;
    for (const std::string& n : trail_) p = joinPath(p, n);
    if (name) p = joinPath(p, name);
    return p;
}

std::string TreeCopy::relativePath(const char* name) const {
    std::string p;
    for (const std::string& n : trail_) p = joinPath(p, n);
    return joinPath(p, name);
}

bool TreeCopy::fail(int err, const char* what, const char* name) {
    if (error_ == 0 && !cancelled_) {
        error_ = err == 0 ? EIO : err;
        QV_LOG_ERROR(QVFormat("failed to copy '%s' (%s): %s", currentPath(name).c_str(), what, std::strerror(error_)));
    }
    return false;
}

bool TreeCopy::leaveOut(int err, const char* what, const char* name) {
    if (err == ENOENT) return true;
    if ((options_ & QVFileOperationSkipSourcePermissionErrors) && (err == EACCES || err == EPERM)) {
        QV_LOG_WARN(QVFormat("skipped unreadable item: '%s': %s", currentPath(name).c_str(), std::strerror(err)));
        return true;
    }
    return fail(err, what, name);
}

bool TreeCopy::advance(uint64_t bytes, const char* name) {
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

bool TreeCopy::itemDone(uint64_t bytes, const char* name) {
    ++status_.itemsCompleted;
    return advance(bytes, name);
}

bool TreeCopy::copyEntry(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
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

bool TreeCopy::copyDirectory(UniqueFd src, const struct stat& st, int dstDir, const char* dstName, bool intoExisting,
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
            if (errno == ENOENT) continue; // gone since the listing
            return fail(errno, "stat", d->d_name);
        }
        if (!copyEntry(srcFd, d->d_name, child, dst.get(), d->d_name)) return false;
    }
    if (intoExisting) return true;
    return applyMetadata(srcFd, dst.get(), st, true, nullptr);
}

bool TreeCopy::copyRegular(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
    const LinkKey key{st.st_dev, st.st_ino};
    if (st.st_nlink >= 2 && dstRoot_ >= 0) {
        auto it = links_.find(key);
        if (it != links_.end()) {
            if (::linkat(dstRoot_, it->second.c_str(), dstDir, dstName, 0) == 0) return itemDone(st.st_size, name);
            if (errno != EMLINK && errno != EPERM && errno != ENOTSUP && errno != EXDEV)
                return fail(errno, "link", name);
            QV_LOG_WARN(QVFormat("can't link '%s' to its other name; copied instead: %s", currentPath(name).c_str(),
                                 std::strerror(errno)));
        }
    }
    UniqueFd in(::openat(srcDir, name, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (!in) return leaveOut(errno, "open", name);
    struct stat now;
    if (::fstat(in.get(), &now) != 0) return fail(errno, "stat", name);
    UniqueFd out(::openat(dstDir, dstName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out) return fail(errno, "create", name);
    bool ok = copyData(in.get(), out.get(), now.st_size, name) && applyMetadata(in.get(), out.get(), now, false, name);
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

bool TreeCopy::copyData(int in, int out, off_t size, const char* name) {
    off_t pos = 0;
    bool holesKnown = true;
    while (pos < size) {
        off_t dataStart = pos;
        off_t dataEnd = size;
        if (holesKnown) {
            off_t data = ::lseek(in, pos, SEEK_DATA);
            if (data < 0) {
                if (errno == ENXIO) { // only a hole is left
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
        if (atEnd) break; // the file shrank while we read it
    }
    if (::ftruncate(out, size) != 0) return fail(errno, "truncate", name);
    return true;
}

bool TreeCopy::copyRange(int in, int out, off_t start, off_t end, const char* name, bool& atEnd) {
    off_t off = start;
    while (off < end) {
        const size_t length = static_cast<size_t>(std::min<off_t>(end - off, kChunk));
        ssize_t n;
        if (useCopyFileRange_) {
            loff_t inOff = off, outOff = off;
            n = ::copy_file_range(in, &inOff, out, &outOff, length, 0);
            if (n < 0) {
                if (errno == EINTR) continue;
                if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == ENOTSUP ||
                    errno == EBADF || errno == ETXTBSY) {
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

template <typename Chown>
bool TreeCopy::chownAsAllowed(Chown chown, const struct stat& st, const char* name) {
    if (::geteuid() == 0) return chown(st.st_uid, st.st_gid) == 0 || fail(errno, "chown", name);
    if (st.st_gid != ::getegid()) chown(static_cast<uid_t>(-1), st.st_gid);
    return true;
}

bool TreeCopy::applyMetadata(int src, int dst, const struct stat& st, bool directory, const char* name) {
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

bool TreeCopy::copySymlink(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
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

bool TreeCopy::copySpecial(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName) {
    if (::mknodat(dstDir, dstName, (st.st_mode & S_IFMT) | 0600, st.st_rdev) != 0) return fail(errno, "mknod", name);
    return finishNonFile(srcDir, name, st, dstDir, dstName, true);
}

bool TreeCopy::finishNonFile(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName,
                             bool hasMode) {
    bool ok = chownAsAllowed([&](uid_t u, gid_t g) { return ::fchownat(dstDir, dstName, u, g, AT_SYMLINK_NOFOLLOW); },
                             st, name);
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

} // namespace copyengine

} // namespace qv

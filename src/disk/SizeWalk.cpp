#include "disk/SizeWalk.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {

bool QVHardLinkTable::seen(const struct stat& st) {
    const Key key{st.st_dev, st.st_ino};
    auto it = entries_.find(key);
    if (it != entries_.end()) {
        if (--it->second == 0) entries_.erase(it);
        return true;
    }
    if (outOfMemory_ || st.st_nlink < 2) return false;
    try {
        entries_.emplace(key, st.st_nlink - 1);
    } catch (const std::bad_alloc&) {
        outOfMemory_ = true;
        QV_LOG_WARN("No more memory for tracking hard links");
    }
    return false;
}

namespace {

constexpr int64_t kHugeFileSize = 0x20000000000;  // 2 TiB

using DirHandle = std::unique_ptr<DIR, int (*)(DIR*)>;

DirHandle openDirAt(int parent, const char* name) {
    int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return DirHandle(nullptr, &::closedir);
    DIR* d = ::fdopendir(fd);
    if (!d) {
        int err = errno;
        ::close(fd);
        errno = err;
    }
    return DirHandle(d, &::closedir);
}

bool isDotOrDotDot(const char* n) { return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0')); }

// The names along the way down, so that a path is built only for a message.
class PathTrail {
public:
    explicit PathTrail(std::string root) : root_(std::move(root)) {}
    void push(const char* name) { names_.push_back(name); }
    void pop() { names_.pop_back(); }
    std::string path(const char* last = nullptr) const {
        std::string p = root_;
        for (const std::string& n : names_) p += "/" + n;
        if (last) p += std::string("/") + last;
        return p;
    }

private:
    std::string root_;
    std::vector<std::string> names_;
};

// The walk behind num512BlocksInDir, folderAtPathAtLeast and folderFileCountAtLeast:
// depth first over directory descriptors, so that names of any length and depth work.
class BlockWalk {
public:
    enum class Mode { Blocks, Items };
    enum class Outcome { Done, Reached, Failed };

    BlockWalk(const char* func, Mode mode, uint64_t limit) : func_(func), mode_(mode), limit_(limit), trail_("") {}

    Outcome run(const std::string& root) {
        trail_ = PathTrail(root);
        struct stat st;
        if (::fstatat(AT_FDCWD, root.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return fail(nullptr, errno);
        if (!S_ISDIR(st.st_mode)) return visitOther(st, nullptr);
        DirHandle dir = openDirAt(AT_FDCWD, root.c_str());
        if (!dir) return fail(nullptr, errno);
        return visitDir(dir.get(), st);
    }

    uint64_t total() const { return total_; }

private:
    Outcome fail(const char* name, int err) {
        QVLogWarn(func_, __LINE__, QVFormat("FTS_ERR: %s: %s", trail_.path(name).c_str(), std::strerror(err)));
        return Outcome::Failed;
    }

    Outcome add(uint64_t amount) {
        total_ += amount;
        if (mode_ == Mode::Blocks ? total_ > limit_ : total_ >= limit_) return Outcome::Reached;
        return Outcome::Done;
    }

    Outcome visitOther(const struct stat& st, const char* name) {
        if (mode_ == Mode::Items) {
            if (name && std::strcmp(name, ".DS_Store") == 0) return Outcome::Done;
            return add(1);
        }
        if (st.st_nlink >= 2 && links_.seen(st)) return Outcome::Done;
        return add(st.st_size >= kHugeFileSize ? static_cast<uint64_t>(st.st_size) / 512
                                                : static_cast<uint64_t>(st.st_blocks));
    }

    // A directory: its own blocks, then its contents.
    Outcome visitDir(DIR* dir, const struct stat& st) {
        if (mode_ == Mode::Blocks) {
            Outcome o = add(st.st_size >= kHugeFileSize ? (static_cast<uint64_t>(st.st_size) + 511) / 512
                                                        : static_cast<uint64_t>(st.st_blocks));
            if (o != Outcome::Done) return o;
        }
        ancestors_.emplace_back(st.st_dev, st.st_ino);
        Outcome outcome = Outcome::Done;
        const int fd = ::dirfd(dir);
        for (;;) {
            errno = 0;
            struct dirent* d = ::readdir(dir);
            if (!d) {
                if (errno != 0) outcome = fail(nullptr, errno);
                break;
            }
            if (isDotOrDotDot(d->d_name)) continue;
            struct stat child;
            if (::fstatat(fd, d->d_name, &child, AT_SYMLINK_NOFOLLOW) != 0) {
                // Gone since the listing: it takes no room any more.
                if (errno == ENOENT) continue;
                outcome = fail(d->d_name, errno);
                break;
            }
            if (!S_ISDIR(child.st_mode)) {
                outcome = visitOther(child, d->d_name);
            } else {
                outcome = enter(fd, d->d_name, child);
            }
            if (outcome != Outcome::Done) break;
        }
        ancestors_.pop_back();
        return outcome;
    }

    Outcome enter(int parent, const char* name, const struct stat& st) {
        for (const auto& [dev, ino] : ancestors_) {
            if (dev == st.st_dev && ino == st.st_ino) {
                QVLogWarn(func_, __LINE__, "directory cycle detected");
                return Outcome::Done;
            }
        }
        DirHandle sub = openDirAt(parent, name);
        if (!sub) {
            if (errno == ENOENT) return Outcome::Done;
            return fail(name, errno);
        }
        // The descriptors of a process under /proc are no tree to measure.
        if (std::strcmp(name, "fd") == 0) {
            struct statfs fs;
            if (::fstatfs(::dirfd(sub.get()), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC) return Outcome::Done;
        }
        trail_.push(name);
        Outcome o = visitDir(sub.get(), st);
        trail_.pop();
        return o;
    }

    const char* func_;
    Mode mode_;
    uint64_t limit_;
    PathTrail trail_;
    uint64_t total_ = 0;
    QVHardLinkTable links_;
    std::vector<std::pair<dev_t, ino_t>> ancestors_;
};

} // namespace

int64_t num512BlocksInDir(const std::string& path) {
    if (path.empty()) {
        QV_LOG_ERROR(QVFormat("fts_open: %s", std::strerror(ENOENT)));
        return -1;
    }
    BlockWalk walk(__func__, BlockWalk::Mode::Blocks, UINT64_MAX);
    if (walk.run(path) == BlockWalk::Outcome::Failed) return -1;
    return static_cast<int64_t>(walk.total());
}

int64_t approxSizeOfFolderAtPath(const std::string& path) {
    int64_t blocks = num512BlocksInDir(path);
    if (blocks < 0) return blocks;
    return static_cast<int64_t>((static_cast<uint64_t>(blocks) << 9) / 1048576);
}

int folderAtPathAtLeast(const std::string& path, uint64_t blocks) {
    if (path.empty()) {
        QV_LOG_ERROR(QVFormat("fts_open: %s", std::strerror(ENOENT)));
        return -1;
    }
    BlockWalk walk(__func__, BlockWalk::Mode::Blocks, blocks);
    return walk.run(path) == BlockWalk::Outcome::Reached ? 1 : 0;
}

bool folderAtPath(const std::string& path, uint64_t mib) {
    return folderAtPathAtLeast(path, (mib << 11) & 0x7FFFFFFFFFF800ull) == 1;
}

int folderFileCountAtLeast(const std::string& path, uint64_t count) {
    if (path.empty()) {
        QV_LOG_ERROR(QVFormat("fts_open: %s", std::strerror(ENOENT)));
        return -1;
    }
    if (count == 0) return 1;
    BlockWalk walk(__func__, BlockWalk::Mode::Items, count);
    switch (walk.run(path)) {
    case BlockWalk::Outcome::Reached: return 1;
    case BlockWalk::Outcome::Done: return 0;
    case BlockWalk::Outcome::Failed: break;
    }
    return -1;
}

namespace {

// Folders that are routinely closed to their owner; not reading them is no news.
bool isExemptFromAccessWarning(const std::string& name) {
    static const std::set<std::string> exempt{".Trashes", ".DocumentRevisions-V100", "lost+found"};
    return exempt.count(name) != 0 || name.rfind(".Trash-", 0) == 0;
}

class LogicalSizeWalk {
public:
    LogicalSizeWalk(const QVSizeCancelBlock& cancel, std::string root) : cancel_(cancel), trail_(std::move(root)) {}

    bool cancelled() const { return cancelled_; }
    uint64_t total() const { return total_; }

    // The bytes under the open directory `dir` (whose name is `name`), or -1.
    int64_t folder(DIR* dir, const std::string& name) {
        const int fd = ::dirfd(dir);
        uint64_t levelTotal = 0;
        int failure = 0;
        for (;;) {
            errno = 0;
            struct dirent* d = ::readdir(dir);
            if (!d) {
                failure = errno;
                break;
            }
            if (isDotOrDotDot(d->d_name)) continue;
            if (cancel_ && cancel_(total_)) {
                cancelled_ = true;
                return static_cast<int64_t>(levelTotal);
            }
            struct stat st;
            if (::fstatat(fd, d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) continue;
                QVLogError("fastFolderSizeAtFSRef", __LINE__,
                           QVFormat("error %d during size calc for: %s", errno, trail_.path(d->d_name).c_str()));
                return -1;
            }
            if (!S_ISDIR(st.st_mode)) {
                levelTotal += static_cast<uint64_t>(st.st_size);
                total_ += static_cast<uint64_t>(st.st_size);
                continue;
            }
            DirHandle sub = openDirAt(fd, d->d_name);
            if (!sub) {
                int err = errno;
                if (err == ENOENT) continue;
                trail_.push(d->d_name);
                int64_t r = unreadable(err, d->d_name);
                trail_.pop();
                if (r < 0) return -1;
                continue;
            }
            trail_.push(d->d_name);
            int64_t r = folder(sub.get(), d->d_name);
            trail_.pop();
            if (r < 0) return -1;
            levelTotal += static_cast<uint64_t>(r);
            if (cancelled_) return static_cast<int64_t>(levelTotal);
        }
        if (failure != 0) {
            int64_t r = unreadable(failure, name);
            return r < 0 ? -1 : static_cast<int64_t>(levelTotal);
        }
        return static_cast<int64_t>(levelTotal);
    }

    // A folder that couldn't be listed: 0 when we may not, -1 otherwise.
    int64_t unreadable(int err, const std::string& name) {
        if (err == EACCES || err == EPERM) {
            if (!isExemptFromAccessWarning(name))
                QVLogWarn("fastFolderSizeAtFSRef", __LINE__,
                          QVFormat("accessDenied during size calc for: %s", trail_.path().c_str()));
            return 0;
        }
        QVLogError("fastFolderSizeAtFSRef", __LINE__,
                   QVFormat("error %d during size calc for: %s", err, trail_.path().c_str()));
        return -1;
    }

private:
    const QVSizeCancelBlock& cancel_;
    PathTrail trail_;
    uint64_t total_ = 0;
    bool cancelled_ = false;
};

} // namespace

int64_t fastFolderSizeAtFSRef(const std::string& path, const QVSizeCancelBlock& cancelBlock) {
    LogicalSizeWalk walk(cancelBlock, path);
    struct stat st;
    if (path.empty() || ::fstatat(AT_FDCWD, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        QV_LOG_ERROR(QVFormat("error %d during size calc for: %s", path.empty() ? ENOENT : errno, path.c_str()));
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) return static_cast<int64_t>(st.st_size);
    DirHandle dir = openDirAt(AT_FDCWD, path.c_str());
    if (!dir) return walk.unreadable(errno, QVLastPathComponent(path));
    return walk.folder(dir.get(), QVLastPathComponent(path));
}

} // namespace qv

#include "disk/FileSystemVolumes.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "disk/ProcessRunner.h"
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {
namespace {

bool isMountPointInTable(const std::string& resolved) { return QVMountAt(resolved).has_value(); }

// The resolved form of a path whose last component may itself be unreachable
// (a dead FUSE mount): the parent resolved, the last name kept.
std::optional<std::string> resolveParentKeepName(const std::string& path) {
    const std::string parent = QVParentPath(path);
    const std::string name = QVLastPathComponent(path);
    char buffer[PATH_MAX];
    if (!::realpath(parent.c_str(), buffer)) return std::nullopt;
    std::string resolved = buffer;
    if (name.empty()) return resolved;
    return QVPathByAppendingComponent(resolved, name);
}

// The mount table entry of the file system that holds `st`.
std::optional<QVMountEntry> entryForDevice(dev_t dev) {
    for (const QVMountEntry& e : QVReadMountTable()) {
        if (e.major == major(dev) && e.minor == minor(dev)) return e;
    }
    return std::nullopt;
}

} // namespace

bool isVolumeAtURL(const std::string& path, QVError* error) {
    auto failed = [&](int err) {
        QV_LOG_ERROR(QVFormat("isVolume failed with error %d for: %s: %s", err, path.c_str(), std::strerror(err)));
        QVSetError(error, QVPOSIXErrorDomain, err, QVFormat("isVolume failed with error %d for:\n\n%s", err, path.c_str()));
        return false;
    };
    if (path.empty()) return false;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        const int err = errno;
        if (err == ENOENT || err == ENOTDIR) return false;
        if (err == ENOTCONN) {
            auto resolved = resolveParentKeepName(path);
            if (resolved && isMountPointInTable(*resolved)) return true;
        }
        return failed(err);
    }
    if (!S_ISDIR(st.st_mode)) return false;
    struct stat parent;
    if (::stat((path + "/..").c_str(), &parent) != 0) return failed(errno);
    if (parent.st_dev != st.st_dev) return true;
    char buffer[PATH_MAX];
    if (!::realpath(path.c_str(), buffer)) return failed(errno);
    return isMountPointInTable(buffer);
}

bool isDeadVolumeAtURL(const std::string& path) {
    if (path.empty()) return false;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno != ENOTCONN && errno != EIO) return false;
        auto resolved = resolveParentKeepName(path);
        return resolved && isMountPointInTable(*resolved);
    }
    if (!S_ISDIR(st.st_mode) || !isVolumeAtURL(path, nullptr)) return false;
    // A volume served from a disk file whose own server died: the file system
    // on top may still answer from its caches, but every read of the disk fails.
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer)) {
        if (auto m = QVMountAt(buffer); m && m->source.rfind('/', 0) == 0) {
            struct stat disk;
            if (::stat(m->source.c_str(), &disk) != 0 && (errno == ENOTCONN || errno == EIO)) return true;
        }
    }
    // The root's own attributes may come from a cache; its entries come from the disk.
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) return errno == ENOTCONN || errno == EIO;
    char entries[4096];
    const long n = ::syscall(SYS_getdents64, fd.get(), entries, sizeof entries);
    return n < 0 && (errno == ENOTCONN || errno == EIO);
}

bool isVolumeAtPath(const std::string& path) {
    char buffer[PATH_MAX];
    if (!::realpath(path.c_str(), buffer)) {
        QV_LOG_WARN(QVFormat("cannot resolve %s: %s", path.c_str(), std::strerror(errno)));
        return false;
    }
    return isVolumeAtURL(buffer, nullptr);
}

std::optional<std::string> fileSystemDescriptionAtMount(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        QV_LOG_ERROR(QVFormat("statfs failed for '%s': %s", path.c_str(), std::strerror(errno)));
        return std::nullopt;
    }
    auto entry = entryForDevice(st.st_dev);
    if (!entry) {
        QV_LOG_ERROR(QVFormat("statfs failed for '%s': %s", path.c_str(), "not in the mount table"));
        return std::nullopt;
    }
    return entry->fsType;
}

bool isReadOnlyFSAtPath(const std::string& path) {
    struct statvfs vfs;
    if (::statvfs(path.c_str(), &vfs) != 0) return false;
    return (vfs.f_flag & ST_RDONLY) != 0;
}

long ownerForPath(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        QV_LOG_ERROR(QVFormat("couldn't stat: %s: %s", path.c_str(), std::strerror(errno)));
        return -1;
    }
    auto entry = entryForDevice(st.st_dev);
    if (!entry) return 0;
    const std::string key = "user_id=";
    const std::string& o = entry->superOptions;
    for (size_t at = o.find(key); at != std::string::npos; at = o.find(key, at + 1)) {
        if (at == 0 || o[at - 1] == ',') return std::strtol(o.c_str() + at + key.size(), nullptr, 10);
    }
    return 0;
}

std::optional<std::string> volnameAtURL(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    auto entry = entryForDevice(st.st_dev);
    if (!entry) return std::nullopt;
    std::string label;
    // A file system the kernel drives tells its label itself.
    if (UniqueFd fd(::open(entry->mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); fd) {
        char buffer[FSLABEL_MAX + 1] = {};
        if (::ioctl(fd.get(), FS_IOC_GETFSLABEL, buffer) == 0) label = buffer;
    }
    // A FUSE mount of an ext4 disk: the label is in the superblock of the disk behind it.
    if (label.empty() && entry->fsType.rfind("fuse", 0) == 0 && !entry->source.empty() && entry->source[0] == '/') {
        QVError error;
        auto out = quickCommand("/usr/sbin/e2label", {entry->source}, &error);
        if (out && error.empty()) {
            label = *out;
            while (!label.empty() && (label.back() == '\n' || label.back() == '\r')) label.pop_back();
        }
    }
    if (label.empty()) return std::nullopt;
    return label;
}

void notePathChanged(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) return;
    if (::chmod(path.c_str(), st.st_mode & 07777) != 0)
        QV_LOG_WARN(QVFormat("can't tell watchers that '%s' changed: %s", path.c_str(), std::strerror(errno)));
}

bool isSymbolicLinkAtPath(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool isAliasFolderAtPath(const std::string& path) {
    struct stat st;
    return isSymbolicLinkAtPath(path) && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isDirectoryAtPath(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace qv

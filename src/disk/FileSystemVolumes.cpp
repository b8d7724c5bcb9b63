#include "disk/FileSystemVolumes.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "disk/ProcessRunner.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {
namespace {

// Undoes the octal escapes the kernel writes for space, tab, newline and backslash.
std::string unescapeMountField(const std::string& field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const char a = field[i + 1], b = field[i + 2], c = field[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out.push_back(static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0')));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

bool parseMountLine(const std::string& line, QVMountEntry& entry) {
    std::istringstream in(line);
    std::string id, parent, devices, root, mountPoint, options, field;
    if (!(in >> id >> parent >> devices >> root >> mountPoint >> options)) return false;
    // Optional fields up to the lone "-".
    for (;;) {
        if (!(in >> field)) return false;
        if (field == "-") break;
    }
    std::string fsType, source, superOptions;
    if (!(in >> fsType >> source)) return false;
    in >> superOptions;
    size_t colon = devices.find(':');
    if (colon == std::string::npos) return false;
    entry.major = static_cast<unsigned>(std::strtoul(devices.c_str(), nullptr, 10));
    entry.minor = static_cast<unsigned>(std::strtoul(devices.c_str() + colon + 1, nullptr, 10));
    entry.root = unescapeMountField(root);
    entry.mountPoint = unescapeMountField(mountPoint);
    entry.options = options;
    entry.fsType = unescapeMountField(fsType);
    entry.source = unescapeMountField(source);
    entry.superOptions = superOptions;
    return true;
}

bool isMountPointInTable(const std::string& resolved) {
    for (const QVMountEntry& e : QVReadMountTable()) {
        if (e.mountPoint == resolved) return true;
    }
    return false;
}

// The resolved form of a path whose last component may itself be unreachable
// (a dead FUSE mount): the parent resolved, the last name kept.
std::optional<std::string> resolveParentKeepName(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "/" : p.substr(0, slash));
    std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
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

std::vector<QVMountEntry> QVReadMountTable() {
    std::vector<QVMountEntry> table;
    std::ifstream in("/proc/self/mountinfo");
    if (!in) {
        QV_LOG_ERROR(QVFormat("can't read /proc/self/mountinfo: %s", std::strerror(errno)));
        return table;
    }
    std::string line;
    while (std::getline(in, line)) {
        QVMountEntry entry;
        if (parseMountLine(line, entry)) table.push_back(std::move(entry));
    }
    return table;
}

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
    int fd = ::open(entry->mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        char buffer[FSLABEL_MAX + 1] = {};
        if (::ioctl(fd, FS_IOC_GETFSLABEL, buffer) == 0) label = buffer;
        ::close(fd);
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

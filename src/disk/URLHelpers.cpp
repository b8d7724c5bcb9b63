#include "disk/URLHelpers.h"

#include <QDir>
#include <QStandardPaths>
#include <QString>
#include <QStringList>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "disk/FileSystemVolumes.h"
#include "vault/Locations.h"
#include "disk/ProcessRunner.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// "/a//b/./c/" -> "/a/b/c": the same spelling for the same path, without touching
// the disk (links stay as they are).
std::string cleanPath(const std::string& path) {
    if (path.empty()) return path;
    return QDir::cleanPath(QString::fromStdString(path)).toStdString();
}

std::string homeDirectory() {
    const char* home = std::getenv("HOME");
    return home && *home ? home : "/";
}

// The mount entry whose mount point is the longest leading part of `resolved`; of
// several mounts on one point the last, which hides the others.
std::optional<QVMountEntry> mountHolding(const std::string& resolved) {
    std::optional<QVMountEntry> best;
    for (QVMountEntry& entry : QVReadMountTable()) {
        const std::string& mp = entry.mountPoint;
        bool holds = mp == "/" || resolved == mp ||
                     (resolved.size() > mp.size() && resolved.compare(0, mp.size(), mp) == 0 && resolved[mp.size()] == '/');
        if (holds && (!best || mp.size() >= best->mountPoint.size())) best = std::move(entry);
    }
    return best;
}

std::optional<std::string> resolved(const std::string& path) {
    char buffer[PATH_MAX];
    if (path.empty() || !::realpath(path.c_str(), buffer)) return std::nullopt;
    return std::string(buffer);
}

} // namespace

bool checkResourceIsReachable(const std::string& path, QVError* error) {
    struct stat st;
    if (!path.empty() && ::stat(path.c_str(), &st) == 0) return true;
    QVSetErrnoError(error, path.empty() ? ENOENT : errno, path.empty() ? "(null)" : path);
    return false;
}

bool isSparseBundle(const std::string& path) {
    std::string p = cleanPath(path);
    if (!endsWith(p, ".sparsebundle")) return false;
    struct stat st;
    if (::lstat(p.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    for (const char* header : {"/Info.plist", "/Info.bckup"}) {
        if (::lstat((p + header).c_str(), &st) == 0 && S_ISREG(st.st_mode)) return true;
    }
    return false;
}

std::string volume(const std::string& path) {
    auto real = resolved(path);
    if (!real) return "";
    auto entry = mountHolding(*real);
    return entry ? entry->mountPoint : "";
}

bool isInExternalVolume(const std::string& path) {
    struct stat item, home;
    if (path.empty() || ::stat(path.c_str(), &item) != 0) return false;
    if (::stat(homeDirectory().c_str(), &home) != 0) return false;
    return item.st_dev != home.st_dev;
}

bool QVIsNetworkFileSystemType(const std::string& fsType) {
    static const std::array<const char*, 22> network = {
        "nfs",       "nfs4",        "cifs",           "smb3",        "smbfs",        "ncpfs",
        "9p",        "afs",         "ceph",           "glusterfs",   "lustre",       "beegfs",
        "orangefs",  "gpfs",        "davfs",          "fuse.sshfs",  "sshfs",        "fuse.glusterfs",
        "fuse.ceph", "fuse.davfs2", "fuse.rclone",    "fuse.s3fs",
    };
    for (const char* type : network)
        if (fsType == type) return true;
    return false;
}

bool isNetworkDrive(const std::string& path) {
    if (!isInExternalVolume(path)) return false;
    auto real = resolved(path);
    if (!real) return false;
    auto entry = mountHolding(*real);
    return entry && QVIsNetworkFileSystemType(entry->fsType);
}

bool isApp(const std::string& path) {
    std::string p = cleanPath(path);
    return endsWith(p, ".desktop") || endsWith(p, ".app");
}

std::string bundleID(const std::string& path) {
    std::string p = cleanPath(path);
    if (!endsWith(p, ".desktop")) return "";
    struct stat st;
    if (::stat(p.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return "";
    for (const QString& dir : QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation)) {
        std::string prefix = cleanPath(dir.toStdString()) + "/";
        if (p.size() > prefix.size() && p.compare(0, prefix.size(), prefix) == 0) {
            std::string id = p.substr(prefix.size());
            for (char& c : id)
                if (c == '/') c = '-';
            return id;
        }
    }
    return QVLastPathComponent(p);
}

bool isInDesktop(const std::string& path) {
    const std::string p = cleanPath(path);
    if (p.size() < 2 || p.find('/') == std::string::npos) return false;
    return QVParentPath(p) == cleanPath(desktopURL());
}

std::optional<std::vector<pid_t>> processesUsingThisURL(const std::string& path) {
    QVError error;
    std::optional<std::string> out = quickCommand("/usr/bin/lsof", {"-t", path}, &error);
    if (!error.empty() || !out || out->empty()) return std::nullopt;
    std::vector<pid_t> pids;
    size_t start = 0;
    while (start < out->size()) {
        size_t end = out->find('\n', start);
        if (end == std::string::npos) end = out->size();
        std::string line = out->substr(start, end - start);
        start = end + 1;
        if (line.empty()) continue;
        char* rest = nullptr;
        long pid = std::strtol(line.c_str(), &rest, 10);
        if (pid <= 0 || pid > INT_MAX || *rest != '\0') {
            QV_LOG_WARN(QVFormat("lsof gave a line that is no process id: '%s'", line.c_str()));
            continue;
        }
        pids.push_back(static_cast<pid_t>(pid));
    }
    if (pids.empty()) return std::nullopt;
    return pids;
}

} // namespace qv

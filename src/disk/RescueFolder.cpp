#include "disk/RescueFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

int openOwnerFile(const std::string& path, bool create) {
    return ::open(QVRescueFolderOwnerFile(path).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | (create ? O_CREAT : 0),
                  0600);
}

bool reachable(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 || errno != ENOENT;
}

} // namespace

std::string QVRescueFolderCandidate(unsigned long index) {
    return index == 0 ? std::string(QVRescueFolderName) : QVFormat("%s_%lu", QVRescueFolderName, index);
}

bool QVIsRescueFolderName(const std::string& name) {
    const std::string base = QVRescueFolderName;
    if (name == base) return true;
    if (name.size() <= base.size() + 1 || name.compare(0, base.size() + 1, base + "_") != 0) return false;
    return name.find_first_not_of("0123456789", base.size() + 1) == std::string::npos;
}

std::string QVRescueFolderOwnerFile(const std::string& path) {
    return QVPathByAppendingComponent(QVParentPath(path), "." + QVLastPathComponent(path) + ".owner");
}

bool QVRescueFolderIsClaimed(const std::string& path) {
    const int fd = openOwnerFile(path, false);
    if (fd < 0) return false;
    const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

std::unique_ptr<QVRescueFolderClaim> QVRescueFolderClaim::make(const std::string& tempDir) {
    if (tempDir.empty()) return nullptr;
    std::error_code ec;
    std::filesystem::create_directories(tempDir, ec);
    for (unsigned long index = 0;; ++index) {
        const std::string path = QVPathByAppendingComponent(tempDir, QVRescueFolderCandidate(index));
        if (reachable(path)) continue;
        // Claimed before it exists: a sweep never takes a folder being made for a dead one's.
        const int fd = openOwnerFile(path, true);
        if (fd < 0 || ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int err = errno;
            if (fd >= 0) ::close(fd);
            if (err == EWOULDBLOCK) continue;
            QV_LOG_ERROR(
                QVFormat("couldn't create mount directory at: '%s'. Reason: %s", path.c_str(), std::strerror(err)));
            return nullptr;
        }
        if (::mkdir(path.c_str(), 0700) == 0)
            return std::unique_ptr<QVRescueFolderClaim>(new QVRescueFolderClaim(path, fd));
        const int err = errno;
        ::close(fd);
        if (err == EEXIST) continue;
        QV_LOG_ERROR(
            QVFormat("couldn't create mount directory at: '%s'. Reason: %s", path.c_str(), std::strerror(err)));
        return nullptr;
    }
}

bool QVRescueFolderClaim::removeFolder(int* err) {
    if (::rmdir(path_.c_str()) != 0 && errno != ENOENT) {
        if (err) *err = errno;
        return false;
    }
    // Once the folder is gone another restore may claim its name: only our own owner file goes.
    const std::string owner = QVRescueFolderOwnerFile(path_);
    struct stat mine, there;
    if (::fstat(fd_, &mine) == 0 && ::lstat(owner.c_str(), &there) == 0 && mine.st_ino == there.st_ino &&
        mine.st_dev == there.st_dev)
        ::unlink(owner.c_str());
    return true;
}

QVRescueFolderClaim::~QVRescueFolderClaim() {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

} // namespace qv

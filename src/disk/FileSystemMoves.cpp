#include "disk/FileSystemMoves.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>

#include "disk/RenameAt.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {
namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool isSingleName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

int renameNoReplace(const std::string& from, const std::string& to) {
    return QVRenameNoReplaceAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str());
}

} // namespace

std::optional<std::string> moveFile(const std::string& path, const std::string& directory) {
    const std::string dest = QVPathByAppendingComponent(QVTrimmedPath(directory), QVLastPathComponent(path));
    if (exists(dest)) {
        QV_LOG_FAILED("!exists(dest)");
        QV_LOG_ERROR(QVFormat("can't move, destination exists: %s", dest.c_str()));
        return std::nullopt;
    }
    int err = renameNoReplace(path, dest);
    if (err != 0) {
        QV_LOG_ERROR(QVFormat("rename resulted in: %d", err));
        return std::nullopt;
    }
    return dest;
}

std::optional<std::string> moveFileUpADirectory(const std::string& path) {
    return moveFile(path, QVParentPath(QVParentPath(path)));
}

std::optional<std::string> renameItemAtPath(const std::string& path, const std::string& newName) {
    if (!isSingleName(newName)) {
        QV_LOG_ERROR(QVFormat("couldn't rename '%s' to '%s': %s", path.c_str(), newName.c_str(), std::strerror(EINVAL)));
        return std::nullopt;
    }
    const std::string target = QVPathByAppendingComponent(QVParentPath(path), newName);
    if (exists(target)) {
        QV_LOG_ERROR(QVFormat("file exists: %s", target.c_str()));
        return std::nullopt;
    }
    int err = renameNoReplace(path, target);
    if (err != 0) {
        QV_LOG_ERROR(QVFormat("couldn't rename '%s' to '%s': %s", path.c_str(), target.c_str(), std::strerror(err)));
        return std::nullopt;
    }
    return target;
}

std::optional<std::string> forceRenameItemAtPath(const std::string& path, const std::string& newName) {
    if (!isSingleName(newName)) {
        QV_LOG_ERROR(QVFormat("couldn't rename '%s' to '%s': %s", path.c_str(), newName.c_str(), std::strerror(EINVAL)));
        return std::nullopt;
    }
    const std::string parent = QVParentPath(path);
    std::string target = QVPathByAppendingComponent(parent, newName);
    if (target == QVTrimmedPath(path)) return target;
    int err = renameNoReplace(path, target);
    if (err == EEXIST) {
        QVLogInfo(QVFormat("rename of '%s' to '%s' being forced because of existing file", path.c_str(),
                           target.c_str()));
        const std::filesystem::path name(newName);
        const std::string stem = name.stem().string();
        const std::string extension = name.extension().string();  // with its dot, empty for none
        char stamp[32];
        const std::time_t now = std::time(nullptr);
        struct tm local;
        ::localtime_r(&now, &local);
        std::strftime(stamp, sizeof stamp, " %H-%M-%S", &local);
        target = QVPathByAppendingComponent(parent, stem + stamp + extension);
        QVLogInfo(QVFormat("new destination: '%s'", target.c_str()));
        err = renameNoReplace(path, target);
        // Two forced renames within one second: number them rather than replace.
        for (int n = 2; err == EEXIST && n < 1000; ++n) {
            target = QVPathByAppendingComponent(parent, stem + stamp + " " + std::to_string(n) + extension);
            err = renameNoReplace(path, target);
        }
    }
    if (err != 0) {
        QV_LOG_ERROR(QVFormat("couldn't rename '%s' to '%s': %s", path.c_str(), target.c_str(), std::strerror(err)));
        return std::nullopt;
    }
    return target;
}

bool deleteIfEmpty(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), &::closedir);
    if (!dir) return false;
    bool hasStore = false;
    while (struct dirent* d = ::readdir(dir.get())) {
        const std::string name = d->d_name;
        if (name == "." || name == "..") continue;
        if (name != ".DS_Store") return false;
        hasStore = true;
    }
    dir.reset();
    if (hasStore && ::unlink((path + "/.DS_Store").c_str()) != 0 && errno != ENOENT) return false;
    // Something that appeared in the meantime makes this fail: then the folder stays.
    return ::rmdir(path.c_str()) == 0;
}

} // namespace qv

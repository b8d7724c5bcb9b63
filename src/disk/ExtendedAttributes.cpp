#include "disk/ExtendedAttributes.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "toolkit/Log.h"

namespace qv {
namespace {

// Asks for the size, then reads; when the value grew in between, asks again.
template <typename Read>
bool readSized(Read read, std::vector<char>& out, int& err) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        ssize_t size = read(nullptr, 0);
        if (size < 0) {
            err = errno;
            return false;
        }
        out.resize(static_cast<size_t>(size));
        if (size == 0) return true;
        ssize_t got = read(out.data(), out.size());
        if (got >= 0) {
            out.resize(static_cast<size_t>(got));
            return true;
        }
        if (errno != ERANGE) {
            err = errno;
            return false;
        }
    }
    err = ERANGE;
    return false;
}

std::vector<std::string> splitNames(const std::vector<char>& list) {
    std::vector<std::string> names;
    size_t start = 0;
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i] == '\0') {
            if (i > start) names.emplace_back(list.data() + start, i - start);
            start = i + 1;
        }
    }
    return names;
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// A failure to set a privileged attribute is expected for an ordinary user, and
// for a security label the destination's file system may assign itself.
bool mayBeSkipped(const std::string& name, int err) {
    if (startsWith(name, "user.")) return false;
    return err == EPERM || err == EACCES || err == ENOTSUP || err == EINVAL;
}

template <typename List, typename Get, typename Set>
int copyAll(List list, Get get, Set set, std::string* failedName) {
    std::vector<char> names;
    int err = 0;
    if (!readSized([&](char* buf, size_t size) { return list(buf, size); }, names, err)) {
        // No attributes can be kept here at all: nothing to copy.
        if (err == ENOTSUP) return 0;
        if (failedName) failedName->clear();
        return err;
    }
    for (const std::string& name : splitNames(names)) {
        if (startsWith(name, "system.")) continue;
        std::vector<char> value;
        if (!readSized([&](char* buf, size_t size) { return get(name.c_str(), buf, size); }, value, err)) {
            if (err == ENODATA) continue;  // removed since the listing
            if (mayBeSkipped(name, err)) continue;
            if (failedName) *failedName = name;
            return err;
        }
        if (set(name.c_str(), value.data(), value.size()) != 0) {
            err = errno;
            if (mayBeSkipped(name, err)) continue;
            if (failedName) *failedName = name;
            return err;
        }
    }
    return 0;
}

} // namespace

std::optional<std::vector<std::string>> xattrNamesAtPath(const std::string& path) {
    std::vector<char> list;
    int err = 0;
    if (!readSized([&](char* buf, size_t size) { return ::listxattr(path.c_str(), buf, size); }, list, err)) {
        QV_LOG_ERROR(QVFormat("failed to get list of xattrs for: %s: %s", path.c_str(), std::strerror(err)));
        return std::nullopt;
    }
    return splitNames(list);
}

std::optional<std::vector<uint8_t>> xattrDataForName(const std::string& name, const std::string& path) {
    std::vector<char> value;
    int err = 0;
    if (!readSized([&](char* buf, size_t size) { return ::getxattr(path.c_str(), name.c_str(), buf, size); }, value,
                   err)) {
        if (err != ENODATA)
            QV_LOG_ERROR(QVFormat("error getting xattr '%s' for: '%s': %s", name.c_str(), path.c_str(),
                                  std::strerror(err)));
        return std::nullopt;
    }
    if (value.empty()) return std::nullopt;
    return std::vector<uint8_t>(value.begin(), value.end());
}

int setData(const std::vector<uint8_t>& data, const std::string& name, const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) {
        QV_LOG_WARN(QVFormat("can't set xattr '%s'; file doesn't exist: '%s'", name.c_str(), path.c_str()));
        return ENOENT;
    }
    if (::setxattr(path.c_str(), name.c_str(), data.data(), data.size(), 0) != 0) {
        int err = errno;
        QV_LOG_WARN(QVFormat("failed to setxattr '%s' on: '%s', error: %s", name.c_str(), path.c_str(),
                             std::strerror(err)));
        return err;
    }
    return 0;
}

int QVCopyXattrs(int srcFd, int dstFd, std::string* failedName) {
    return copyAll([&](char* buf, size_t size) { return ::flistxattr(srcFd, buf, size); },
                   [&](const char* name, char* buf, size_t size) { return ::fgetxattr(srcFd, name, buf, size); },
                   [&](const char* name, const char* value, size_t size) {
                       return ::fsetxattr(dstFd, name, value, size, 0);
                   },
                   failedName);
}

int QVCopyXattrsNoFollow(const std::string& srcPath, const std::string& dstPath, std::string* failedName) {
    return copyAll([&](char* buf, size_t size) { return ::llistxattr(srcPath.c_str(), buf, size); },
                   [&](const char* name, char* buf, size_t size) {
                       return ::lgetxattr(srcPath.c_str(), name, buf, size);
                   },
                   [&](const char* name, const char* value, size_t size) {
                       return ::lsetxattr(dstPath.c_str(), name, value, size, 0);
                   },
                   failedName);
}

} // namespace qv

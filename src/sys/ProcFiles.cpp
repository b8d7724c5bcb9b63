#include "sys/ProcFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "sys/UniqueFd.h"

namespace qv {

bool QVReadProcFile(const std::string& path, std::string& out, size_t limit) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    out.clear();
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;
        out.append(buffer, static_cast<size_t>(n));
        if (out.size() >= limit) break;
    }
    return true;
}

std::string QVWithoutDeletedMark(std::string path) {
    static const std::string kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
        path.resize(path.size() - kDeleted.size());
    return path;
}

std::string QVReadProcLink(const std::string& link) {
    char buffer[PATH_MAX + 1];
    const ssize_t n = ::readlink(link.c_str(), buffer, PATH_MAX);
    if (n <= 0) return {};
    return QVWithoutDeletedMark(std::string(buffer, static_cast<size_t>(n)));
}

} // namespace qv

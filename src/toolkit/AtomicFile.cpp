#include "toolkit/AtomicFile.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "toolkit/WriteAll.h"

namespace qv {

namespace {

std::string parentOf(const std::string& path) {
    std::string parent = std::filesystem::path(path).parent_path().string();
    return parent.empty() ? "." : parent;
}

} // namespace

bool QVSyncDirectory(const std::string& dir, QVError* error) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        QVSetErrnoError(error, errno, "cannot open directory '" + dir + "'");
        return false;
    }
    int rc = ::fsync(fd);
    int err = errno;
    ::close(fd);
    if (rc != 0) {
        QVSetErrnoError(error, err, "cannot sync directory '" + dir + "'");
        return false;
    }
    return true;
}

bool QVWriteFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes, QVError* error,
                           unsigned mode) {
    const std::string dir = parentOf(path);
    std::string tmpl = dir + "/." + std::filesystem::path(path).filename().string() + ".XXXXXX";
    int fd = ::mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0) {
        QVSetErrnoError(error, errno, "cannot create a temporary file in '" + dir + "'");
        return false;
    }
    auto fail = [&](const std::string& what) {
        int err = errno;
        ::close(fd);
        ::unlink(tmpl.c_str());
        QVSetErrnoError(error, err, what);
        return false;
    };
    if (::fchmod(fd, mode) != 0) return fail("cannot set the mode of '" + tmpl + "'");
    if (QVWriteAll(fd, bytes.data(), bytes.size()) != 0) return fail("cannot write '" + tmpl + "'");
    if (::fsync(fd) != 0) return fail("cannot sync '" + tmpl + "'");
    if (::close(fd) != 0) {
        int err = errno;
        ::unlink(tmpl.c_str());
        QVSetErrnoError(error, err, "cannot close '" + tmpl + "'");
        return false;
    }
    if (::rename(tmpl.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(tmpl.c_str());
        QVSetErrnoError(error, err, "cannot replace '" + path + "'");
        return false;
    }
    return QVSyncDirectory(dir, error);
}

std::optional<std::vector<uint8_t>> QVReadFile(const std::string& path, QVError* error, size_t maxBytes) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        QVSetErrnoError(error, errno, "cannot open '" + path + "'");
        return std::nullopt;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
        ::close(fd);
        QVSetErrnoError(error, err, "cannot read '" + path + "'");
        return std::nullopt;
    }
    std::vector<uint8_t> out;
    if (uint64_t(st.st_size) <= maxBytes) out.reserve(static_cast<size_t>(st.st_size));
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            int err = errno;
            ::close(fd);
            QVSetErrnoError(error, err, "cannot read '" + path + "'");
            return std::nullopt;
        }
        if (n == 0) break;
        // Checked as it grows: the file may grow while it is read.
        if (size_t(n) > maxBytes - out.size()) {
            ::close(fd);
            QVSetErrnoError(error, EFBIG, "cannot read '" + path + "'");
            return std::nullopt;
        }
        out.insert(out.end(), buf, buf + n);
    }
    ::close(fd);
    return out;
}

} // namespace qv

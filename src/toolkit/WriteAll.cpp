#include "toolkit/WriteAll.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace qv {
namespace {

// One loop for both kinds of write: `put` writes at most n bytes, `done` bytes in.
template <typename Put>
int writeEverything(const void* data, size_t size, Put put) {
    const auto* p = static_cast<const uint8_t*>(data);
    size_t done = 0;
    while (done < size) {
        const ssize_t n = put(p + done, size - done, done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) {
            errno = EIO;
            return EIO;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

} // namespace

int QVWriteAll(int fd, const void* data, size_t size) {
    return writeEverything(data, size, [fd](const uint8_t* p, size_t n, size_t) { return ::write(fd, p, n); });
}

int QVWriteAllAt(int fd, const void* data, size_t size, off_t offset) {
    return writeEverything(data, size, [fd, offset](const uint8_t* p, size_t n, size_t done) {
        return ::pwrite(fd, p, n, offset + static_cast<off_t>(done));
    });
}

} // namespace qv

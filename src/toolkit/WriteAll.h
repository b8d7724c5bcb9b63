#pragma once
// Writing every byte: write(2) may take fewer bytes than asked (pipes, FUSE
// files, a signal part way) or be interrupted before it takes any, and every
// caller that means "all of it" goes on from where it stopped.
//
// It lives with the atomic files rather than with the rest of the Linux
// plumbing (sys/) because they need it and sit in the layer below.
#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace qv {

// Writes the `size` bytes at `data` to `fd` from its current offset. 0 once all
// are written; otherwise the errno of the write that failed (EIO for a write
// that took nothing), also left in errno. A write interrupted by a signal is
// retried; a non-blocking descriptor that is full fails with EAGAIN.
int QVWriteAll(int fd, const void* data, size_t size);
inline int QVWriteAll(int fd, std::string_view bytes) { return QVWriteAll(fd, bytes.data(), bytes.size()); }

// The same at `offset` (pwrite): the descriptor's own offset is left alone.
int QVWriteAllAt(int fd, const void* data, size_t size, off_t offset);

} // namespace qv

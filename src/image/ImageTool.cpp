#include "image/ImageTool.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "vault/QVCrypto.h"

namespace qv::image {

namespace {
size_t mappedLength(size_t n) {
    const size_t page = 4096;
    return (n + page - 1) / page * page;
}
} // namespace

bool fail(QVError* error, int status, const std::string& text) {
    QVSetError(error, kImageErrorDomain, status, text);
    return false;
}

int exitStatusOf(const QVError* error) {
    if (error && error->domain == kImageErrorDomain && error->code > 0 && error->code < 256) return int(error->code);
    return QVImageExitFailure;
}

bool failErrno(QVError* error, int err, const std::string& what, int status) {
    if (err == ENOSPC || err == EDQUOT) {
        status = QVImageExitNoSpace;
    }
    return fail(error, status, what + ": " + std::strerror(err));
}

const char* encryptionName(Encryption e) { return e == Encryption::AES128 ? "AES-128" : "AES-256"; }

size_t xtsKeyLength(Encryption e) { return e == Encryption::AES128 ? 32 : 64; }

SecureBytes::SecureBytes(SecureBytes&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

SecureBytes& SecureBytes::operator=(SecureBytes&& other) noexcept {
    if (this != &other) {
        clear();
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

void SecureBytes::resize(size_t n) {
    clear();
    if (n == 0) return;
    // Pages of their own, so that locking and leaving them out of core dumps
    // touches nothing else.
    const size_t mapped = mappedLength(n);
    void* p = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    data_ = static_cast<uint8_t*>(p);
    size_ = n;
    // Best effort: an unprivileged process may have a small lock limit, and a
    // secret that can't be locked is still wiped.
    ::mlock(data_, mapped);
    ::madvise(data_, mapped, MADV_DONTDUMP);
}

void SecureBytes::assign(const uint8_t* p, size_t n) {
    resize(n);
    if (n) std::memcpy(data_, p, n);
}

void SecureBytes::clear() {
    if (!data_) return;
    QVWipe(data_, size_);
    ::munlock(data_, mappedLength(size_));
    ::munmap(data_, mappedLength(size_));
    data_ = nullptr;
    size_ = 0;
}

} // namespace qv::image

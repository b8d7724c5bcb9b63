#pragma once
// What every part of qv-image shares: failing with the exit statuses its callers
// read (sys/ImageToolStatus.h), the geometry of an image, buffers for secrets,
// and the verbs' entry points.
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sys/ImageToolStatus.h"
#include "toolkit/QVError.h"

namespace qv::image {

// The error domain of the tool; an error's code is the exit status it ends in.
inline constexpr const char* kImageErrorDomain = "qv-image";

// Fills *error (when given) with the tool's domain and returns false, so that
// a failing step reads `return fail(error, QVImageExitUsage, "...")`.
bool fail(QVError* error, int status, const std::string& text);
// The exit status an error stands for: its code when it is one of ours, else 1.
int exitStatusOf(const QVError* error);
// errno-based failure: ENOSPC and EDQUOT become QVImageExitNoSpace, everything else `status`.
bool failErrno(QVError* error, int err, const std::string& what, int status = QVImageExitFailure);

// The same, for a verb that ends there: returns the status.
inline int refuse(QVError* error, int status, const std::string& text) {
    fail(error, status, text);
    return status;
}
inline int refuseErrno(QVError* error, int err, const std::string& what, int status = QVImageExitFailure) {
    failErrno(error, err, what, status);
    return (err == ENOSPC || err == EDQUOT) ? int(QVImageExitNoSpace) : status;
}

// Geometry. A band is one file of bands/ holding 8 MiB of the virtual disk;
// a sector is the unit of encryption.
inline constexpr uint64_t kSectorSize = 4096;
inline constexpr uint64_t kBandSize = 8ull << 20;
inline constexpr uint64_t kSectorsPerBand = kBandSize / kSectorSize;
inline constexpr uint64_t kMinImageSize = 16ull << 20;
// The disk's ext4 numbers its blocks in 32 bits (see CreateVerb), so a new or
// resized image stops one block short of 16 TiB. A bundle may still declare
// 16 TiB: images made before that choice went up to it.
inline constexpr uint64_t kMaxImageSize = ((1ull << 32) - 1) * kSectorSize;
inline constexpr uint64_t kMaxDeclaredSize = 16ull << 40;
inline constexpr int64_t kFormatVersion = 1;

enum class Encryption { AES128, AES256 };
// "AES-128" / "AES-256"
const char* encryptionName(Encryption e);
// Key bytes of AES-XTS: two AES keys.
size_t xtsKeyLength(Encryption e);

enum class Layer { Fuse2fs, Kernel };

// Bytes that hold a password or a key: locked in memory where the system
// allows it, and overwritten when they go away. Never copied.
class SecureBytes {
public:
    SecureBytes() = default;
    explicit SecureBytes(size_t n) { resize(n); }
    ~SecureBytes() { clear(); }
    SecureBytes(const SecureBytes&) = delete;
    SecureBytes& operator=(const SecureBytes&) = delete;
    SecureBytes(SecureBytes&& other) noexcept;
    SecureBytes& operator=(SecureBytes&& other) noexcept;

    // Drops the content (wiped first) and makes room for n zero bytes.
    void resize(size_t n);
    void assign(const uint8_t* p, size_t n);
    void clear();

    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

// The verbs. `args` are the words after the verb; each returns the exit status
// and leaves a description in *error on failure.
struct VerbContext {
    Layer layer = Layer::Fuse2fs;
};
int runCreate(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);
int runAttach(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);
int runDetach(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);
int runImageInfo(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);
int runCompact(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);
int runResize(const std::vector<std::string>& args, const VerbContext& ctx, QVError* error);

} // namespace qv::image

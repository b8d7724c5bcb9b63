#include "image/BandStore.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "sys/UniqueFd.h"
#include "toolkit/Log.h"
#include "toolkit/WriteAll.h"

namespace qv::image {

namespace {

// Requests are cut at these boundaries, so that the per-thread buffers stay small.
constexpr uint64_t kPiece = 1ull << 20;

std::atomic<uint64_t> nextCipherId{1};

// Scratch space of the calling thread: the stored bytes of a piece and its plaintext.
// Left uninitialised: every byte is written before it is read, and zero-filling
// 2 MiB for each new worker thread measured as a sizeable share of the device
// process's time.
struct Scratch {
    std::unique_ptr<uint8_t[]> storedBytes = std::make_unique_for_overwrite<uint8_t[]>(kPiece + 2 * kSectorSize);
    std::unique_ptr<uint8_t[]> plainBytes = std::make_unique_for_overwrite<uint8_t[]>(kPiece + 2 * kSectorSize);
};
Scratch& scratch() {
    thread_local Scratch s;
    return s;
}

// pread until `length` bytes or end of file; the rest is zero-filled.
int readFully(int fd, uint8_t* p, size_t length, uint64_t offset) {
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(fd, p + done, length - done, off_t(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) break;
        done += size_t(n);
    }
    if (done < length) std::memset(p + done, 0, length - done);
    return 0;
}

} // namespace

std::string bandName(uint64_t band) { return QVFormat("%llx", static_cast<unsigned long long>(band)); }

std::optional<uint64_t> parseBandName(const std::string& name) {
    if (name.empty() || name.size() > 16) return std::nullopt;
    if (name.size() > 1 && name[0] == '0') return std::nullopt;
    uint64_t n = 0;
    for (char c : name) {
        unsigned d;
        if (c >= '0' && c <= '9')
            d = unsigned(c - '0');
        else if (c >= 'a' && c <= 'f')
            d = unsigned(c - 'a' + 10);
        else
            return std::nullopt;
        n = (n << 4) | d;
    }
    return n;
}

bool isAllZero(const uint8_t* p, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w) return false;
    }
    for (; i < n; ++i)
        if (p[i]) return false;
    return true;
}

// ------------------------------------------------------------------ XtsCipher

struct XtsCipher::Contexts {
    uint64_t owner = 0;
    EVP_CIPHER_CTX* enc = nullptr;
    EVP_CIPHER_CTX* dec = nullptr;
    ~Contexts() { release(); }
    void release() {
        EVP_CIPHER_CTX_free(enc);  // cleanses the key schedule
        EVP_CIPHER_CTX_free(dec);
        enc = dec = nullptr;
        owner = 0;
    }
};

XtsCipher::XtsCipher(Encryption encryption, const uint8_t* key)
    : encryption_(encryption), id_(nextCipherId.fetch_add(1)) {
    key_.assign(key, xtsKeyLength(encryption));
}

XtsCipher::~XtsCipher() {
    // The calling thread's contexts hold this key's schedule: drop them now.
    Contexts& c = contexts();
    if (c.owner == id_) c.release();
}

XtsCipher::Contexts& XtsCipher::contexts() const {
    thread_local Contexts c;
    return c;
}

bool XtsCipher::run(bool encrypting, uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const {
    Contexts& c = contexts();
    if (c.owner != id_) {
        c.release();
        const EVP_CIPHER* alg = encryption_ == Encryption::AES128 ? EVP_aes_128_xts() : EVP_aes_256_xts();
        c.enc = EVP_CIPHER_CTX_new();
        c.dec = EVP_CIPHER_CTX_new();
        if (!c.enc || !c.dec || EVP_EncryptInit_ex(c.enc, alg, nullptr, key_.data(), nullptr) != 1 ||
            EVP_DecryptInit_ex(c.dec, alg, nullptr, key_.data(), nullptr) != 1) {
            QV_LOG_ERROR("cannot set up the AES-XTS cipher");
            c.release();
            return false;
        }
        c.owner = id_;
    }
    uint8_t tweak[16] = {};
    for (int i = 0; i < 8; ++i) tweak[i] = uint8_t(index >> (8 * i));
    int outLength = 0;
    if (encrypting) {
        return EVP_EncryptInit_ex(c.enc, nullptr, nullptr, nullptr, tweak) == 1 &&
               EVP_EncryptUpdate(c.enc, out, &outLength, in, int(length)) == 1 && size_t(outLength) == length;
    }
    return EVP_DecryptInit_ex(c.dec, nullptr, nullptr, nullptr, tweak) == 1 &&
           EVP_DecryptUpdate(c.dec, out, &outLength, in, int(length)) == 1 && size_t(outLength) == length;
}

bool XtsCipher::encrypt(uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const {
    return run(true, index, in, out, length);
}

bool XtsCipher::decrypt(uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const {
    return run(false, index, in, out, length);
}

// ------------------------------------------------------------------ BandStore

struct BandStore::BandFile {
    UniqueFd fd;
};

BandStore::BandStore(int bandsDirFd, uint64_t size, Encryption encryption, const uint8_t* key)
    : bandsDirFd_(bandsDirFd), size_(size), cipher_(encryption, key) {
    struct rlimit rl {};
    size_t limit = 1024;
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY) limit = size_t(rl.rlim_cur);
    // Half the descriptors for bands, the rest for everything else the process opens.
    maxOpen_ = std::clamp<size_t>(limit / 2, 16, 4096);
}

BandStore::~BandStore() = default;

uint64_t BandStore::bandLength(uint64_t band) const {
    const uint64_t start = band * kBandSize;
    return std::min(kBandSize, size_ - start);
}

BandStore::BandRef BandStore::openBand(uint64_t band, bool create, int* err) {
    *err = 0;
    {
        std::lock_guard<std::mutex> g(cacheMutex_);
        auto it = cache_.find(band);
        if (it != cache_.end()) {
            recent_.splice(recent_.begin(), recent_, it->second.second);
            return it->second.first;
        }
    }
    const std::string name = bandName(band);
    UniqueFd fd(::openat(bandsDirFd_, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!fd && errno == ENOENT && create) {
        fd.reset(::openat(bandsDirFd_, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (fd) {
            // Full length from the start, as a hole: the file's size never has to
            // change again, and what was never written reads as zeros.
            if (::ftruncate(fd.get(), off_t(bandLength(band))) != 0) {
                *err = errno;
                fd.reset();
                ::unlinkat(bandsDirFd_, name.c_str(), 0);
                return nullptr;
            }
            markDirectoryDirty();
        } else if (errno == EEXIST) {
            fd.reset(::openat(bandsDirFd_, name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
        }
    }
    if (!fd) {
        if (errno != ENOENT || create) *err = errno;
        return nullptr;
    }
    auto ref = std::make_shared<BandFile>(BandFile{std::move(fd)});
    std::lock_guard<std::mutex> g(cacheMutex_);
    auto it = cache_.find(band);
    if (it != cache_.end()) return it->second.first;  // another thread opened it meanwhile
    recent_.push_front(band);
    cache_.emplace(band, std::make_pair(ref, recent_.begin()));
    while (cache_.size() > maxOpen_) {
        // Whoever still uses an evicted band keeps its descriptor until done.
        cache_.erase(recent_.back());
        recent_.pop_back();
    }
    return ref;
}

void BandStore::forgetBand(uint64_t band) {
    std::lock_guard<std::mutex> g(cacheMutex_);
    auto it = cache_.find(band);
    if (it == cache_.end()) return;
    recent_.erase(it->second.second);
    cache_.erase(it);
}

void BandStore::markDirty(uint64_t band) {
    std::lock_guard<std::mutex> g(dirtyMutex_);
    dirtyBands_.insert(band);
}

void BandStore::markDirectoryDirty() {
    std::lock_guard<std::mutex> g(dirtyMutex_);
    directoryDirty_ = true;
}

bool BandStore::hasUnsyncedChanges() {
    std::lock_guard<std::mutex> g(dirtyMutex_);
    return directoryDirty_ || !dirtyBands_.empty();
}

// Calls f(band, offsetInBand, length, position) for the pieces of a range:
// none crosses a band or a 1 MiB boundary of the disk.
template <class F>
int forEachPiece(uint64_t offset, uint64_t length, F&& f) {
    uint64_t position = 0;
    while (position < length) {
        const uint64_t at = offset + position;
        const uint64_t band = at / kBandSize;
        const uint64_t end = std::min({offset + length, (band + 1) * kBandSize, (at / kPiece + 1) * kPiece});
        if (int err = f(band, at - band * kBandSize, end - at, position)) return err;
        position += end - at;
    }
    return 0;
}

int BandStore::read(uint64_t offset, size_t length, uint8_t* out) {
    if (offset > size_ || length > size_ - offset) return EINVAL;
    return forEachPiece(offset, length, [&](uint64_t band, uint64_t inBand, uint64_t n, uint64_t pos) {
        std::shared_lock<std::shared_mutex> g(bandLock(band));
        return readInBand(band, inBand, size_t(n), out + pos);
    });
}

int BandStore::readInBand(uint64_t band, uint64_t offset, size_t length, uint8_t* out) {
    int err = 0;
    BandRef file = openBand(band, false, &err);
    if (!file) {
        if (err) return err;
        std::memset(out, 0, length);
        return 0;
    }
    const uint64_t first = offset / kSectorSize;
    const uint64_t last = (offset + length + kSectorSize - 1) / kSectorSize;
    const size_t span = size_t((last - first) * kSectorSize);
    uint8_t* buf = scratch().storedBytes.get();
    if ((err = readFully(file->fd.get(), buf, span, first * kSectorSize))) return err;
    const uint64_t base = band * kSectorsPerBand + first;
    // Whole sectors (what the kernel asks for) are decrypted straight into
    // the caller's buffer; a part of a sector goes through the scratch space.
    const bool whole = offset % kSectorSize == 0 && length % kSectorSize == 0;
    uint8_t* to = whole ? out : buf;
    for (uint64_t s = 0; s < last - first; ++s) {
        const uint8_t* sector = buf + s * kSectorSize;
        uint8_t* plain = to + s * kSectorSize;
        if (isAllZero(sector, kSectorSize)) {
            if (plain != sector) std::memset(plain, 0, kSectorSize);
        } else if (!cipher_.decrypt(base + s, sector, plain, kSectorSize)) {
            return EIO;
        }
    }
    if (!whole) std::memcpy(out, buf + (offset - first * kSectorSize), length);
    return 0;
}

int BandStore::write(uint64_t offset, size_t length, const uint8_t* in) {
    if (offset > size_ || length > size_ - offset) return EINVAL;
    return forEachPiece(offset, length, [&](uint64_t band, uint64_t inBand, uint64_t n, uint64_t pos) {
        std::unique_lock<std::shared_mutex> g(bandLock(band));
        return writeInBand(band, inBand, size_t(n), in + pos);
    });
}

int BandStore::writeInBand(uint64_t band, uint64_t offset, size_t length, const uint8_t* in) {
    int err = 0;
    BandRef file = openBand(band, false, &err);
    if (err) return err;
    const uint64_t first = offset / kSectorSize;
    const uint64_t last = (offset + length + kSectorSize - 1) / kSectorSize;
    const uint64_t count = last - first;
    const size_t span = size_t(count * kSectorSize);
    const uint64_t head = offset - first * kSectorSize;
    Scratch& s = scratch();
    uint8_t* stored = s.storedBytes.get();
    uint8_t* plain = s.plainBytes.get();

    // What is stored matters for partial sectors (merged with the new bytes) and
    // for sectors of zeros (one that is stored as zeros already stays untouched).
    const bool partial = head != 0 || (offset + length) % kSectorSize != 0;
    std::memcpy(plain + head, in, length);
    bool anyZero = false;
    for (uint64_t i = 0; i < count && !anyZero; ++i) anyZero = isAllZero(plain + i * kSectorSize, kSectorSize);
    const bool haveStored = file && (partial || anyZero);
    if (haveStored) {
        if ((err = readFully(file->fd.get(), stored, span, first * kSectorSize))) return err;
    } else {
        std::memset(stored, 0, span);
    }
    const uint64_t base = band * kSectorsPerBand + first;
    if (partial) {
        std::vector<uint64_t> edges;
        if (head != 0) edges.push_back(0);
        if ((offset + length) % kSectorSize != 0 && (edges.empty() || count > 1)) edges.push_back(count - 1);
        uint8_t sector[kSectorSize];
        for (uint64_t i : edges) {
            const uint8_t* st = stored + i * kSectorSize;
            if (isAllZero(st, kSectorSize))
                std::memset(sector, 0, kSectorSize);
            else if (!cipher_.decrypt(base + i, st, sector, kSectorSize))
                return EIO;
            // Keep the old bytes outside [head, head + length).
            const uint64_t from = i * kSectorSize, to = from + kSectorSize;
            const uint64_t keepBefore = head > from ? std::min(head, to) - from : 0;
            if (keepBefore) std::memcpy(plain + from, sector, keepBefore);
            const uint64_t newEnd = head + length;
            if (newEnd < to) {
                const uint64_t keepFrom = std::max(newEnd, from);
                std::memcpy(plain + keepFrom, sector + (keepFrom - from), to - keepFrom);
            }
        }
    }

    // Encrypt in place; a sector of zeros over a stored sector of zeros (or a
    // hole, or a missing band) is left as it is.
    std::vector<bool> skip(count, false);
    bool anyToWrite = false;
    for (uint64_t i = 0; i < count; ++i) {
        uint8_t* p = plain + i * kSectorSize;
        if (isAllZero(p, kSectorSize) && isAllZero(stored + i * kSectorSize, kSectorSize)) {
            skip[i] = true;
            continue;
        }
        if (!cipher_.encrypt(base + i, p, p, kSectorSize)) return EIO;
        anyToWrite = true;
    }
    if (!anyToWrite) return 0;
    if (!file) {
        file = openBand(band, true, &err);
        if (!file) return err ? err : EIO;
    }
    for (uint64_t i = 0; i < count;) {
        if (skip[i]) {
            ++i;
            continue;
        }
        uint64_t j = i;
        while (j < count && !skip[j]) ++j;
        if ((err = QVWriteAllAt(file->fd.get(), plain + i * kSectorSize, size_t((j - i) * kSectorSize),
                                off_t((first + i) * kSectorSize))))
            return err;
        i = j;
    }
    markDirty(band);
    return 0;
}

int BandStore::discard(uint64_t offset, uint64_t length) {
    if (offset > size_ || length > size_ - offset) return EINVAL;
    // Pieces of whole bands at most: discarding needs no buffer for whole sectors.
    uint64_t position = 0;
    while (position < length) {
        const uint64_t at = offset + position;
        const uint64_t band = at / kBandSize;
        const uint64_t end = std::min(offset + length, (band + 1) * kBandSize);
        std::unique_lock<std::shared_mutex> g(bandLock(band));
        if (int err = discardInBand(band, at - band * kBandSize, end - at)) return err;
        position += end - at;
    }
    return 0;
}

int BandStore::discardInBand(uint64_t band, uint64_t offset, uint64_t length) {
    const std::string name = bandName(band);
    if (offset == 0 && length == bandLength(band)) {
        forgetBand(band);
        if (::unlinkat(bandsDirFd_, name.c_str(), 0) != 0 && errno != ENOENT) return errno;
        markDirectoryDirty();
        return 0;
    }
    // Partial sectors at the ends are rewritten with zeros.
    const uint64_t firstWhole = (offset + kSectorSize - 1) / kSectorSize * kSectorSize;
    const uint64_t endWhole = (offset + length) / kSectorSize * kSectorSize;
    static const uint8_t zeros[kSectorSize] = {};
    if (firstWhole >= endWhole) {
        // Within one sector, or across the boundary of two.
        uint64_t pos = offset;
        while (pos < offset + length) {
            const uint64_t n = std::min(offset + length, (pos / kSectorSize + 1) * kSectorSize) - pos;
            if (int err = writeInBand(band, pos, size_t(n), zeros)) return err;
            pos += n;
        }
        return 0;
    }
    if (firstWhole > offset)
        if (int err = writeInBand(band, offset, size_t(firstWhole - offset), zeros)) return err;
    if (offset + length > endWhole)
        if (int err = writeInBand(band, endWhole, size_t(offset + length - endWhole), zeros)) return err;

    int err = 0;
    BandRef file = openBand(band, false, &err);
    if (!file) return err;
    if (::fallocate(file->fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(firstWhole),
                    off_t(endWhole - firstWhole)) != 0) {
        if (errno != EOPNOTSUPP) return errno;
        // No holes on this file system: stored zeros read as zeros just the same.
        static const std::vector<uint8_t> zeroPiece(kPiece, 0);
        for (uint64_t pos = firstWhole; pos < endWhole; pos += kPiece)
            if ((err = QVWriteAllAt(file->fd.get(), zeroPiece.data(), size_t(std::min(kPiece, endWhole - pos)),
                                    off_t(pos))))
                return err;
    }
    markDirty(band);
    // A band with no data left goes away.
    if (::lseek(file->fd.get(), 0, SEEK_DATA) < 0 && errno == ENXIO) {
        forgetBand(band);
        if (::unlinkat(bandsDirFd_, name.c_str(), 0) != 0 && errno != ENOENT) return errno;
        markDirectoryDirty();
    }
    return 0;
}

int BandStore::sync() {
    std::set<uint64_t> bands;
    bool directory;
    {
        std::lock_guard<std::mutex> g(dirtyMutex_);
        bands.swap(dirtyBands_);
        directory = directoryDirty_;
        directoryDirty_ = false;
    }
    int firstError = 0;
    std::set<uint64_t> failed;
    for (uint64_t band : bands) {
        int err = 0;
        BandRef file;
        {
            // Under the band's lock, so that a band being deleted is never opened
            // (and cached) after its deletion.
            std::shared_lock<std::shared_mutex> g(bandLock(band));
            file = openBand(band, false, &err);
        }
        if (!file) {
            if (err) {
                failed.insert(band);
                if (!firstError) firstError = err;
            }
            continue;  // deleted since: nothing of it to keep
        }
        if (::fdatasync(file->fd.get()) != 0) {
            failed.insert(band);
            if (!firstError) firstError = errno;
        }
    }
    if (directory && ::fsync(bandsDirFd_) != 0) {
        if (!firstError) firstError = errno;
    } else {
        directory = false;
    }
    if (firstError) {
        std::lock_guard<std::mutex> g(dirtyMutex_);
        dirtyBands_.insert(failed.begin(), failed.end());
        directoryDirty_ = directoryDirty_ || directory;
    }
    return firstError;
}

} // namespace qv::image

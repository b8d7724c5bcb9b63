#pragma once
// The encrypted virtual disk: 4096-byte sectors under AES-XTS, stored in band
// files of 8 MiB each. A band that does not exist, a hole in a band and a
// stored sector of all zero bytes all read as a sector of zeros.
#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "image/ImageTool.h"

namespace qv::image {

// "0", "1", ..., "a", ..., "1f": the band's number in lower-case hexadecimal.
std::string bandName(uint64_t band);
// The number of a band file name; nullopt for any other name.
std::optional<uint64_t> parseBandName(const std::string& name);
// True when all n bytes are zero.
bool isAllZero(const uint8_t* p, size_t n);

// AES-XTS over whole sectors, the tweak being the sector's index as a 128-bit
// little-endian number. Usable from many threads at once: each thread keeps
// its own cipher contexts.
class XtsCipher {
public:
    XtsCipher(Encryption encryption, const uint8_t* key);
    ~XtsCipher();
    XtsCipher(const XtsCipher&) = delete;
    XtsCipher& operator=(const XtsCipher&) = delete;

    // `length` bytes of one data unit (a sector); in and out may be the same buffer.
    bool encrypt(uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const;
    bool decrypt(uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const;

private:
    struct Contexts;
    Contexts& contexts() const;
    bool run(bool encrypting, uint64_t index, const uint8_t* in, uint8_t* out, size_t length) const;

    Encryption encryption_;
    SecureBytes key_;
    uint64_t id_;  // tells apart the ciphers that a thread has contexts for
};

// The virtual disk as its readers and writers see it. Thread-safe; every
// method returns 0 or an errno value.
class DiskStore {
public:
    virtual ~DiskStore() = default;
    virtual uint64_t size() const = 0;
    // [offset, offset + length) must lie within the disk.
    virtual int read(uint64_t offset, size_t length, uint8_t* out) = 0;
    virtual int write(uint64_t offset, size_t length, const uint8_t* in) = 0;
    // Makes a range read as zeros.
    virtual int discard(uint64_t offset, uint64_t length) = 0;
};

// Reads and writes of the virtual disk against the band files of one image.
class BandStore final : public DiskStore {
public:
    BandStore(int bandsDirFd, uint64_t size, Encryption encryption, const uint8_t* key);
    ~BandStore() override;
    BandStore(const BandStore&) = delete;
    BandStore& operator=(const BandStore&) = delete;

    uint64_t size() const override { return size_; }

    int read(uint64_t offset, size_t length, uint8_t* out) override;
    int write(uint64_t offset, size_t length, const uint8_t* in) override;
    // Whole sectors become holes, a band left without data is deleted,
    // partial sectors are rewritten.
    int discard(uint64_t offset, uint64_t length) override;
    // Makes everything written so far durable: the band files written, and the
    // bands directory when a band was created or deleted.
    int sync();

    // Bands written (or created or deleted) since the last sync: for tests.
    bool hasUnsyncedChanges();

private:
    struct BandFile;
    using BandRef = std::shared_ptr<BandFile>;

    uint64_t bandLength(uint64_t band) const;
    std::shared_mutex& bandLock(uint64_t band) { return locks_[band % locks_.size()]; }
    // The open band file, or null when the band does not exist (and create is
    // false). *err is 0 unless something failed.
    BandRef openBand(uint64_t band, bool create, int* err);
    void forgetBand(uint64_t band);
    int readInBand(uint64_t band, uint64_t offset, size_t length, uint8_t* out);
    int writeInBand(uint64_t band, uint64_t offset, size_t length, const uint8_t* in);
    int discardInBand(uint64_t band, uint64_t offset, uint64_t length);
    void markDirty(uint64_t band);
    void markDirectoryDirty();

    int bandsDirFd_;
    uint64_t size_;
    XtsCipher cipher_;
    std::array<std::shared_mutex, 64> locks_;

    std::mutex cacheMutex_;
    std::unordered_map<uint64_t, std::pair<BandRef, std::list<uint64_t>::iterator>> cache_;
    std::list<uint64_t> recent_;  // most recently used first
    size_t maxOpen_;

    std::mutex dirtyMutex_;
    std::set<uint64_t> dirtyBands_;
    bool directoryDirty_ = false;
};

} // namespace qv::image

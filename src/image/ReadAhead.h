#pragma once
// Decrypts the disk ahead of a sequential reader.
//
// Without privilege the kernel reads ahead in a FUSE file at most 128 KiB at a
// time, so a reader streaming the disk (fuse2fs reading a large file) waits
// for every 128 KiB on a round trip through this process: a band read and
// its decryption, one request after the other. Once two reads follow each
// other, this reads and decrypts the next MiB into memory while the reader
// is still busy with what it got, and the requests that follow are answered
// with a copy.
//
// What is read ahead never outlives a change of the disk: a write or discard
// drops the pieces it overlaps, and a piece being read while any change runs
// is thrown away rather than kept.
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "image/BandStore.h"

namespace qv::image {

class ReadAhead final : public DiskStore {
public:
    explicit ReadAhead(DiskStore& store);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // Like the store's: 0 or an errno value, [offset, offset + length) within the disk.
    uint64_t size() const override { return store_.size(); }
    int read(uint64_t offset, size_t length, uint8_t* out) override;
    int write(uint64_t offset, size_t length, const uint8_t* in) override;
    int discard(uint64_t offset, uint64_t length) override;
    // Called once the read of [offset, offset + length) was answered: when it
    // continues an earlier read, reads ahead of it in the calling thread.
    void readAheadOf(uint64_t offset, size_t length);

    static constexpr uint64_t kPiece = 128 * 1024;
    static constexpr uint64_t kAhead = 1024 * 1024;
    static constexpr size_t kMaxPieces = 2 * kAhead / kPiece;
    static constexpr size_t kStreams = 4;

private:
    struct Piece {
        std::unique_ptr<uint8_t[]> data;
        size_t length = 0;
        bool ready = false;
        uint64_t used = 0;  // when it was made or last read from, for eviction
    };
    // Waits while a piece that [offset, end) needs is still being read. True
    // when every piece it needs is ready.
    bool awaitCovered(std::unique_lock<std::mutex>& lock, uint64_t offset, uint64_t end);
    // Pieces touching [offset, end) are forgotten; those still being read are
    // thrown away by the reader when it finds the generation moved.
    void beginChange(uint64_t offset, uint64_t end);
    void endChange();
    using Pieces = std::map<uint64_t, struct Piece>;
    // Erases a piece, keeping its buffer for the next; the iterator after it.
    Pieces::iterator forget(Pieces::iterator it);
    // Drops the piece read least recently when the table is full. False when
    // every piece is still being read.
    bool makeRoom();
    // The piece's length: kPiece, less for the last one of the disk.
    size_t pieceLength(uint64_t index) const;

    DiskStore& store_;
    std::mutex mutex_;
    std::condition_variable pieceDone_;
    Pieces pieces_;                                  // by the piece's index (offset / kPiece)
    std::vector<std::unique_ptr<uint8_t[]>> spare_;  // buffers of kPiece bytes
    uint64_t streams_[kStreams];                     // where the recent sequential reads end
    size_t nextStream_ = 0;
    uint64_t generation_ = 0;  // moves at the start and end of every change
    unsigned changing_ = 0;    // changes under way
    uint64_t clock_ = 0;
};

} // namespace qv::image

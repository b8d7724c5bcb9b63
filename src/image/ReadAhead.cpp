#include "image/ReadAhead.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

namespace qv::image {

namespace {
constexpr uint64_t kNoStream = std::numeric_limits<uint64_t>::max();
}

ReadAhead::ReadAhead(DiskStore& store) : store_(store) {
    std::fill(std::begin(streams_), std::end(streams_), kNoStream);
}

bool ReadAhead::awaitCovered(std::unique_lock<std::mutex>& lock, uint64_t offset, uint64_t end) {
    for (;;) {
        bool waiting = false;
        for (uint64_t index = offset / kPiece; index * kPiece < end; ++index) {
            auto it = pieces_.find(index);
            if (it == pieces_.end()) return false;
            if (!it->second.ready) {
                waiting = true;
                break;
            }
        }
        if (!waiting) return true;
        pieceDone_.wait(lock);
    }
}

int ReadAhead::read(uint64_t offset, size_t length, uint8_t* out) {
    if (offset > store_.size() || length > store_.size() - offset) return EINVAL;
    const uint64_t end = offset + length;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (length && !pieces_.empty() && awaitCovered(lock, offset, end)) {
            for (uint64_t index = offset / kPiece; index * kPiece < end; ++index) {
                auto it = pieces_.find(index);
                Piece& piece = it->second;
                const uint64_t start = index * kPiece;
                const uint64_t from = std::max(offset, start);
                const uint64_t to = std::min(end, start + piece.length);
                std::memcpy(out + (from - offset), piece.data.get() + (from - start), size_t(to - from));
                // The kernel keeps what it read in its page cache and won't ask
                // for it again while it holds it: a piece read to its end is done.
                if (to == start + piece.length)
                    forget(it);
                else
                    piece.used = ++clock_;
            }
            return 0;
        }
    }
    return store_.read(offset, length, out);
}

void ReadAhead::beginChange(uint64_t offset, uint64_t end) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++changing_;
    ++generation_;
    for (auto it = pieces_.lower_bound(offset / kPiece); it != pieces_.end() && it->first * kPiece < end;) {
        if (it->second.ready)
            it = forget(it);
        else
            ++it;
    }
}

void ReadAhead::endChange() {
    std::lock_guard<std::mutex> lock(mutex_);
    --changing_;
    ++generation_;
}

int ReadAhead::write(uint64_t offset, size_t length, const uint8_t* in) {
    beginChange(offset, offset + length);
    const int err = store_.write(offset, length, in);
    endChange();
    return err;
}

int ReadAhead::discard(uint64_t offset, uint64_t length) {
    beginChange(offset, offset + length);
    const int err = store_.discard(offset, length);
    endChange();
    return err;
}

ReadAhead::Pieces::iterator ReadAhead::forget(Pieces::iterator it) {
    if (it == pieces_.end()) return it;
    if (it->second.data && spare_.size() < kMaxPieces) spare_.push_back(std::move(it->second.data));
    return pieces_.erase(it);
}

size_t ReadAhead::pieceLength(uint64_t index) const {
    return size_t(std::min(kPiece, store_.size() - index * kPiece));
}

bool ReadAhead::makeRoom() {
    if (pieces_.size() < kMaxPieces) return true;
    auto oldest = pieces_.end();
    for (auto it = pieces_.begin(); it != pieces_.end(); ++it)
        if (it->second.ready && (oldest == pieces_.end() || it->second.used < oldest->second.used)) oldest = it;
    if (oldest == pieces_.end()) return false;
    forget(oldest);
    return true;
}

void ReadAhead::readAheadOf(uint64_t offset, size_t length) {
    const uint64_t end = offset + length;
    std::vector<uint64_t> wanted;
    std::vector<std::unique_ptr<uint8_t[]>> buffers;  // one for each wanted piece
    uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        uint64_t* stream = std::find(std::begin(streams_), std::end(streams_), offset);
        if (stream == std::end(streams_)) {
            // Not a continuation (yet): remembered in place of the oldest.
            streams_[nextStream_] = end;
            nextStream_ = (nextStream_ + 1) % kStreams;
            return;
        }
        *stream = end;
        if (changing_) return;
        const uint64_t limit = std::min(end + kAhead, store_.size());
        // Requests are answered in any order: a read further on may have been
        // answered already, and what it got the kernel holds.
        uint64_t from = end;
        for (uint64_t other : streams_)
            if (other != kNoStream && other > from && other < limit) from = other;
        for (uint64_t index = from / kPiece; index * kPiece < limit; ++index) {
            if (pieces_.count(index)) continue;
            if (!makeRoom()) break;
            Piece& piece = pieces_[index];
            piece.length = pieceLength(index);
            piece.used = ++clock_;
            wanted.push_back(index);
            if (spare_.empty()) {
                // Uninitialised on purpose: the store fills it, or it is dropped.
                buffers.push_back(std::make_unique_for_overwrite<uint8_t[]>(kPiece));
            } else {
                buffers.push_back(std::move(spare_.back()));
                spare_.pop_back();
            }
        }
        generation = generation_;
    }
    for (size_t i = 0; i < wanted.size(); ++i) {
        const uint64_t index = wanted[i];
        const int err = store_.read(index * kPiece, pieceLength(index), buffers[i].get());
        std::lock_guard<std::mutex> lock(mutex_);
        if (err || generation_ != generation) {
            // The disk changed meanwhile (or can't be read): this piece and
            // the ones not read yet are given up; readers go to the store.
            for (size_t j = i; j < wanted.size(); ++j) {
                auto it = pieces_.find(wanted[j]);
                it->second.data = std::move(buffers[j]);
                forget(it);
            }
            pieceDone_.notify_all();
            return;
        }
        // Nobody else drops a piece still being read: it is still there.
        Piece& piece = pieces_.find(index)->second;
        piece.data = std::move(buffers[i]);
        piece.ready = true;
        pieceDone_.notify_all();
    }
}

} // namespace qv::image

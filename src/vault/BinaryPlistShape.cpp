// The binary half of the property-list guard: an iterative walk over the object
// table that follows every reference reachable from the root once.
#include "vault/PropertyListGuard.h"

#include <cstring>
#include <limits>
#include <vector>

namespace qv {

namespace {

class PlistShapeCheck {
public:
    PlistShapeCheck(const uint8_t* data, size_t size, size_t maxDepth) : p_(data), n_(size), maxDepth_(maxDepth) {}

    // Empty when the data may be handed to libplist; otherwise the reason.
    std::string run() {
        if (n_ < 8 + 32) return "too short for a binary property list";
        if (std::memcmp(p_, "bplist00", 8) != 0) return "not a binary property list";
        const uint8_t* t = p_ + n_ - 32;
        offsetSize_ = t[6];
        refSize_ = t[7];
        count_ = be(t + 8, 8);
        uint64_t root = be(t + 16, 8);
        tableOffset_ = be(t + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return "bad trailer";
        if (tableOffset_ < 8 || tableOffset_ > n_ - 32) return "offset table out of range";
        if (count_ == 0 || count_ > (n_ - 32 - tableOffset_) / offsetSize_) return "bad object count";
        if (root >= count_) return "root object out of range";
        // Each expanded node costs at least one reference byte in a file without
        // shared containers; twice that leaves room for other writers' habits.
        limit_ = 2 * uint64_t(n_) + 1024;

        state_.assign(count_, 0);
        kind_.assign(count_, 0);
        expanded_.assign(count_, 0);
        std::vector<Frame> stack;
        std::string why;
        if (!enter(root, stack, why)) return why;
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.refCount) {
                uint64_t child = be(p_ + f.refsAt + f.next * refSize_, refSize_);
                bool isKey = f.isDict && f.next < f.refCount / 2;
                if (child >= count_) return "reference out of range";
                if (state_[child] == 1) return "reference cycle";
                if (state_[child] == 2) {
                    if (isKey && kind_[child] != 0x5 && kind_[child] != 0x6) return "dictionary key is not a string";
                    f.sum = addCapped(f.sum, expanded_[child]);
                    ++f.next;
                    continue;
                }
                if (stack.size() >= maxDepth_) return "property list nested too deeply";
                // `f` is invalid once enter() pushes; the loop comes back to it.
                if (!enter(child, stack, why)) return why;
                continue;
            }
            uint64_t index = f.index;
            expanded_[index] = addCapped(f.sum, 1);
            state_[index] = 2;
            stack.pop_back();
            if (expanded_[index] > limit_) return "property list expands too much";
        }
        return {};
    }

private:
    struct Frame {
        uint64_t index = 0;
        uint64_t refsAt = 0;
        uint64_t refCount = 0;
        uint64_t next = 0;
        uint64_t sum = 0;
        bool isDict = false;
    };

    uint64_t be(const uint8_t* q, unsigned size) const {
        uint64_t v = 0;
        for (unsigned i = 0; i < size; ++i) v = (v << 8) | q[i];
        return v;
    }
    uint64_t addCapped(uint64_t a, uint64_t b) const {
        return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
    }

    // Parses the marker of object `index`; leaves are finished at once, containers
    // are pushed for their references to be walked.
    bool enter(uint64_t index, std::vector<Frame>& stack, std::string& why) {
        uint64_t off = be(p_ + tableOffset_ + index * offsetSize_, offsetSize_);
        const uint64_t end = tableOffset_;
        if (off < 8 || off >= end) return (why = "object offset out of range"), false;
        uint8_t marker = p_[off];
        uint8_t type = marker >> 4, low = marker & 0x0F;
        uint64_t pos = off + 1;
        auto fits = [&](uint64_t bytes) { return bytes <= end - pos; };
        kind_[index] = type;
        state_[index] = 1;
        uint64_t length = low;
        if (type == 0x4 || type == 0x5 || type == 0x6 || type == 0xA || type == 0xC || type == 0xD) {
            if (low == 0x0F) {
                if (!fits(1)) return (why = "truncated object"), false;
                uint8_t m2 = p_[pos++];
                unsigned bytes = 1u << (m2 & 0x0F);
                if ((m2 >> 4) != 0x1 || (m2 & 0x0F) > 3 || !fits(bytes)) return (why = "bad object length"), false;
                length = be(p_ + pos, bytes);
                pos += bytes;
            }
        }
        uint64_t unit = 0;
        switch (type) {
        case 0x0:
            if (low != 0x8 && low != 0x9) return (why = "unsupported object marker"), false;
            break;
        case 0x1:
            if (low > 4 || !fits(1u << low)) return (why = "bad integer"), false;
            break;
        case 0x2:
            if ((low != 2 && low != 3) || !fits(1u << low)) return (why = "bad real"), false;
            break;
        case 0x3:
            if (low != 3 || !fits(8)) return (why = "bad date"), false;
            break;
        case 0x4:
        case 0x5:
            unit = 1;
            break;
        case 0x6:
            unit = 2;
            break;
        case 0x8:
            if (low > 3 || !fits(low + 1u)) return (why = "bad reference"), false;
            break;
        case 0xA:
        case 0xC:
            unit = refSize_;
            break;
        case 0xD:
            unit = 2 * uint64_t(refSize_);
            break;
        default:
            return (why = "unsupported object marker"), false;
        }
        if (unit && length > (end - pos) / unit) return (why = "object extends past its end"), false;
        // libplist keeps strings as C strings and aborts on one with a NUL inside.
        if (type == 0x5 && std::memchr(p_ + pos, 0, length)) return (why = "string holds a NUL"), false;
        if (type == 0x6)
            for (uint64_t i = 0; i < length; ++i)
                if (p_[pos + 2 * i] == 0 && p_[pos + 2 * i + 1] == 0) return (why = "string holds a NUL"), false;
        if (type == 0xA || type == 0xC || type == 0xD) {
            Frame f;
            f.index = index;
            f.refsAt = pos;
            f.refCount = type == 0xD ? 2 * length : length;
            f.isDict = type == 0xD;
            stack.push_back(f);
        } else {
            expanded_[index] = 1;
            state_[index] = 2;
        }
        return true;
    }

    const uint8_t* p_;
    size_t n_;
    size_t maxDepth_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    uint64_t count_ = 0, tableOffset_ = 0, limit_ = 0;
    std::vector<uint8_t> state_; // 0 unseen, 1 on the walk, 2 done
    std::vector<uint8_t> kind_;
    std::vector<uint64_t> expanded_;
};

} // namespace

std::string QVBinaryPropertyListShapeProblem(const uint8_t* data, size_t size, size_t maxDepth) {
    return PlistShapeCheck(data, size, maxDepth).run();
}

} // namespace qv

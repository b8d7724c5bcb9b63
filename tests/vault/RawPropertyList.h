#pragma once
// Binary property lists made by hand, for the shapes no writer produces: root
// object 0, objects given as marker bytes and contents, references and offsets
// 4 bytes wide.
#include <cstdint>
#include <vector>

#include "vault/Value.h"

namespace qv::test {

inline void putBE(Bytes& out, uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
}

inline Bytes rawBplist(const std::vector<Bytes>& objects) {
    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint64_t> offsets;
    for (const auto& o : objects) {
        offsets.push_back(out.size());
        out.insert(out.end(), o.begin(), o.end());
    }
    const uint64_t table = out.size();
    for (auto off : offsets) putBE(out, off, 4);
    putBE(out, 0x0404, 8);
    putBE(out, objects.size(), 8);
    putBE(out, 0, 8);
    putBE(out, table, 8);
    return out;
}

inline Bytes rawArray(const std::vector<uint32_t>& refs) {
    Bytes o = {0xAF, 0x12};
    putBE(o, refs.size(), 4);
    for (auto r : refs) putBE(o, r, 4);
    return o;
}

// 100000 arrays, each holding the next: far deeper than any limit.
inline Bytes rawDeepBplist() {
    std::vector<Bytes> deep;
    for (uint32_t i = 1; i < 100000; ++i) deep.push_back(rawArray({i}));
    deep.push_back(rawArray({}));
    return rawBplist(deep);
}

// Four arrays of 1000 references to the next: a few KiB that expand to 10^12 nodes.
inline Bytes rawWideBplist() {
    std::vector<Bytes> wide;
    for (uint32_t i = 1; i <= 4; ++i) wide.push_back(rawArray(std::vector<uint32_t>(1000, i)));
    wide.push_back(rawArray({}));
    return rawBplist(wide);
}

} // namespace qv::test

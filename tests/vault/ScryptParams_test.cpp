#include <gtest/gtest.h>

#include <cmath>

#include "vault/ScryptParams.h"
#include "vault/Value.h"

using namespace qv;

namespace {
constexpr uint64_t MiB = 1048576, GiB = 1024 * MiB;

std::string deriveHex(const std::string& pass, const std::string& salt, uint64_t N, uint32_t r, uint32_t p) {
    uint8_t out[64];
    if (!QVScryptDerive(reinterpret_cast<const uint8_t*>(pass.data()), pass.size(),
                        reinterpret_cast<const uint8_t*>(salt.data()), salt.size(), N, r, p, out, sizeof out))
        return "failed";
    std::string hex;
    for (uint8_t b : out) hex += "0123456789abcdef"[b >> 4], hex += "0123456789abcdef"[b & 15];
    return hex;
}
} // namespace

// Published test vectors of the scrypt function (RFC 7914, section 12).
TEST(ScryptDerive, MatchesPublishedVectors) {
    EXPECT_EQ(deriveHex("", "", 16, 1, 1), "77d6576238657b203b19ca42c18a0497f16b4844e3074ae8dfdffa3fede21442"
                                           "fcd0069ded0948f8326a753a0fc81f17e8d3e0fb2e0d3628cf35e20c38d18906");
    EXPECT_EQ(deriveHex("password", "NaCl", 1024, 8, 16),
              "fdbabe1c9d3472007856e7190d01e9fe7c6ad7cbc8237830e77376634b373162"
              "2eaf30d92e22a3886ff109279d9830dac727afb94a83ee6d8360cbdfa2cc0640");
}

TEST(ScryptMemLimit, LeastFactTimesFractionCappedAndFloored) {
    QVScryptMemoryFacts f;  // every limit "none"
    f.physicalMemory = 8 * GiB;
    f.rlimitData = 2 * GiB;
    f.rlimitRSS = 3 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), 1 * GiB);
    // 0, NaN and anything above one half mean one half; a positive maximum caps.
    for (double frac : {0.0, 1.0, std::nan("")}) EXPECT_EQ(QVScryptMemLimitFrom(f, 0, frac), 1 * GiB);
    EXPECT_EQ(QVScryptMemLimitFrom(f, 64 * MiB, 0.5), 64 * MiB);
    EXPECT_EQ(QVScryptMemLimitFrom(f, 1000, 0.5), MiB) << "never below 1 MiB";
}

TEST(ScryptPickParams, ProcessorOrMemoryBound) {
    // 1e6 operations fit in 8 GiB many times over: N from time alone, p = 1.
    auto cpu = QVScryptPickParams(8 * GiB, 1e6, 1.0);
    EXPECT_EQ(cpu.logN, 14);  // maxN 31250: least 2^logN above 15625
    EXPECT_EQ(cpu.p, 1u);
    // 16 MiB caps N at 16384; the spare time goes into p: 1e8/4/16384 = 1525, / 8.
    auto mem = QVScryptPickParams(16 * MiB, 1e8, 1.0);
    EXPECT_EQ(mem.logN, 14);
    EXPECT_EQ(mem.p, 190u);
    // No speed still counts 32768 operations (1 MiB is then the boundary, memory-bound);
    // absurd speed stops p at 2^27 - 1.
    EXPECT_EQ(QVScryptPickParams(MiB, 0, 1.0).logN, 10);
    EXPECT_EQ(QVScryptPickParams(MiB, 1e16, 1.0).p, 134217727u);
}

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "vault/ScryptParams.h"
#include "vault/Value.h"

using namespace qv;

namespace {

Bytes fromHex(const char* hex) {
    Bytes out;
    for (const char* c = hex; c[0] && c[1]; c += 2) {
        while (*c == ' ') c++;
        unsigned v;
        sscanf(c, "%2x", &v);
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

Bytes derive(const std::string& pass, const std::string& salt, uint64_t N, uint32_t r, uint32_t p) {
    Bytes out(64);
    bool ok = QVScryptDerive(reinterpret_cast<const uint8_t*>(pass.data()), pass.size(),
                             reinterpret_cast<const uint8_t*>(salt.data()), salt.size(), N, r, p, out.data(), out.size());
    return ok ? out : Bytes{};
}

constexpr uint64_t MiB = 1048576;
constexpr uint64_t GiB = 1024 * MiB;

} // namespace

// Published test vectors of the scrypt function (RFC 7914, section 12).
TEST(ScryptDerive, MatchesPublishedVectors) {
    EXPECT_EQ(derive("", "", 16, 1, 1),
              fromHex("77d6576238657b203b19ca42c18a0497f16b4844e3074ae8dfdffa3fede21442"
                      "fcd0069ded0948f8326a753a0fc81f17e8d3e0fb2e0d3628cf35e20c38d18906"));
    EXPECT_EQ(derive("password", "NaCl", 1024, 8, 16),
              fromHex("fdbabe1c9d3472007856e7190d01e9fe7c6ad7cbc8237830e77376634b373162"
                      "2eaf30d92e22a3886ff109279d9830dac727afb94a83ee6d8360cbdfa2cc0640"));
}

TEST(ScryptDerive, RefusesInvalidParameters) {
    EXPECT_TRUE(derive("", "", 0, 1, 1).empty());
    EXPECT_TRUE(derive("", "", 24, 1, 1).empty());          // not a power of two
    EXPECT_TRUE(derive("", "", 16, 0, 1).empty());
    EXPECT_TRUE(derive("", "", 16, 1 << 15, 1 << 15).empty());  // r * p >= 2^30
}

TEST(ScryptMemLimit, TakesTheLeastFactAndIgnoresUnlimited) {
    QVScryptMemoryFacts f;
    f.physicalMemory = 8 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), 4 * GiB);
    f.rlimitData = 2 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), 1 * GiB);
    f.rlimitAS = 1 * GiB;
    f.rlimitRSS = 3 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), 512 * MiB);
    // Every "no limit" ignored: only the physical memory is left.
    QVScryptMemoryFacts g;
    g.physicalMemory = 4 * GiB;
    g.rlimitAS = g.rlimitData = g.rlimitRSS = UINT64_MAX;
    EXPECT_EQ(QVScryptMemLimitFrom(g, 0, 0.5), 2 * GiB);
}

TEST(ScryptMemLimit, FractionCapAndFloor) {
    QVScryptMemoryFacts f;
    f.physicalMemory = 10 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.1), static_cast<size_t>(0.1 * static_cast<double>(10 * GiB)));
    // 0 and anything above one half mean one half.
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.0), 5 * GiB);
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 1.0), 5 * GiB);
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, std::nan("")), 5 * GiB);
    // A positive maximum caps it.
    EXPECT_EQ(QVScryptMemLimitFrom(f, 64 * MiB, 0.5), 64 * MiB);
    // Truncated, not rounded.
    f.physicalMemory = 3000001;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), 1500000u);
    // Never below 1 MiB, whatever the facts or the cap say.
    f.physicalMemory = 100000;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), MiB);
    f.physicalMemory = 0;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 0, 0.5), MiB);
    f.physicalMemory = 8 * GiB;
    EXPECT_EQ(QVScryptMemLimitFrom(f, 1000, 0.5), MiB);
}

TEST(ScryptMemLimit, ThisMachine) {
    QVScryptMemoryFacts facts;
    ASSERT_EQ(QVScryptReadMemoryFacts(&facts), 0);
    EXPECT_GT(facts.physicalMemory, 16 * MiB);
    size_t limit = 0;
    ASSERT_EQ(QVScryptMemLimit(0, 0.1, &limit), 0);
    EXPECT_GE(limit, MiB);
    EXPECT_LE(limit, std::max<uint64_t>(MiB, facts.physicalMemory / 10 + 1));
}

TEST(ScryptSpeed, MeasuresAPositiveRate) {
    double ops = 0;
    ASSERT_EQ(QVScryptMeasureSpeed(&ops), 0);
    EXPECT_TRUE(std::isfinite(ops));
    EXPECT_GT(ops, 0);
}

TEST(ScryptPickParams, ProcessorBound) {
    // 1e6 operations fit in 8 GiB many times over: N from time alone, p = 1.
    auto p = QVScryptPickParams(8 * GiB, 1e6, 1.0);
    EXPECT_EQ(p.logN, 14);  // maxN = 31250, least 2^logN above 15625
    EXPECT_EQ(p.r, 8u);
    EXPECT_EQ(p.p, 1u);
    // Twice the time, twice N.
    EXPECT_EQ(QVScryptPickParams(8 * GiB, 1e6, 2.0).logN, 15);
}

TEST(ScryptPickParams, MemoryBound) {
    // 16 MiB caps N at 16384; the spare time goes into p.
    auto p = QVScryptPickParams(16 * MiB, 1e8, 1.0);
    EXPECT_EQ(p.logN, 14);
    EXPECT_EQ(p.r, 8u);
    EXPECT_EQ(p.p, 190u);  // (1e8 / 4 / 16384) = 1525.9, truncated, divided by 8
}

TEST(ScryptPickParams, FloorsAndCaps) {
    // No speed at all still gives 32768 operations; 1 MiB is exactly the
    // boundary, which counts as memory-bound.
    auto slow = QVScryptPickParams(MiB, 0, 1.0);
    EXPECT_EQ(slow.logN, 10);
    EXPECT_EQ(slow.p, 1u);
    // Absurd speed with little memory: p stops at 2^27 - 1.
    auto fast = QVScryptPickParams(MiB, 1e16, 1.0);
    EXPECT_EQ(fast.logN, 10);
    EXPECT_EQ(fast.p, 134217727u);
    // Whatever the inputs, the parameters are ones scrypt accepts.
    for (size_t mem : {size_t{MiB}, size_t{64 * MiB}, size_t{4 * GiB}}) {
        for (double s : {0.0, 1e5, 1e7, 1e9}) {
            auto q = QVScryptPickParams(mem, s, 1.0);
            EXPECT_GE(q.logN, 1);
            EXPECT_LE(q.logN, 63);
            EXPECT_GE(q.p, 1u);
            EXPECT_LT(uint64_t{q.r} * q.p, uint64_t{1} << 30);
        }
    }
}

#include "vault/ScryptParams.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

namespace qv {

namespace {

constexpr uint64_t kNoLimit = UINT64_MAX;
constexpr size_t kMemLimitFloor = 1048576;

bool standsForNoLimit(uint64_t v) { return v == kNoLimit || v == static_cast<uint64_t>(RLIM_INFINITY); }

int softLimit(int resource, uint64_t* out) {
    struct rlimit rl;
    if (getrlimit(resource, &rl) != 0) return QVScryptErrMemLimit;
    *out = static_cast<uint64_t>(rl.rlim_cur);
    return QVScryptOK;
}

// Wall time as seconds and nanoseconds.
struct ClockTime {
    int64_t sec = 0;
    int64_t nsec = 0;
};

bool readClock(ClockTime* t) {
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) return false;
    t->sec = tv.tv_sec;
    t->nsec = static_cast<int64_t>(tv.tv_usec) * 1000;
    return true;
}

bool secondsSince(const ClockTime& start, double* diff) {
    ClockTime now;
    if (!readClock(&now)) return false;
    *diff = static_cast<double>(now.sec - start.sec) + static_cast<double>(now.nsec - start.nsec) * 1e-9;
    return true;
}

// One scrypt run on empty inputs, as the speed measurement counts them.
bool emptyRun(uint64_t N) {
    uint8_t out[64];
    return QVScryptDerive(nullptr, 0, nullptr, 0, N, 1, 1, out, sizeof out);
}

} // namespace

int QVScryptReadMemoryFacts(QVScryptMemoryFacts* facts) {
    long pages = sysconf(_SC_PHYS_PAGES);
    long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages < 0 || pageSize <= 0) return QVScryptErrMemLimit;
    uint64_t phys = 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(pages), static_cast<uint64_t>(pageSize), &phys)) phys = kNoLimit;
    facts->physicalMemory = phys;
    if (int rc = softLimit(RLIMIT_AS, &facts->rlimitAS)) return rc;
    if (int rc = softLimit(RLIMIT_DATA, &facts->rlimitData)) return rc;
    if (int rc = softLimit(RLIMIT_RSS, &facts->rlimitRSS)) return rc;
    return QVScryptOK;
}

size_t QVScryptMemLimitFrom(const QVScryptMemoryFacts& facts, size_t maxmem, double maxmemfrac) {
    uint64_t least = kNoLimit;
    for (uint64_t v : {facts.physicalMemory, facts.rlimitAS, facts.rlimitData, facts.rlimitRSS}) {
        if (!standsForNoLimit(v)) least = std::min(least, v);
    }
    // Also catches NaN: only a fraction in (0, 0.5] is taken as given.
    if (!(maxmemfrac > 0 && maxmemfrac <= 0.5)) maxmemfrac = 0.5;
    // At most half of 2^64, so the truncation back to an integer can't overflow.
    uint64_t limit = static_cast<uint64_t>(maxmemfrac * static_cast<double>(least));
    if (maxmem > 0 && limit > maxmem) limit = maxmem;
    if (limit < kMemLimitFloor) limit = kMemLimitFloor;
    if (limit > SIZE_MAX) limit = SIZE_MAX;
    return static_cast<size_t>(limit);
}

int QVScryptMemLimit(size_t maxmem, double maxmemfrac, size_t* memlimit) {
    QVScryptMemoryFacts facts;
    if (int rc = QVScryptReadMemoryFacts(&facts)) return rc;
    *memlimit = QVScryptMemLimitFrom(facts, maxmem, maxmemfrac);
    return QVScryptOK;
}

int QVScryptMeasureSpeed(double* opsPerSecond) {
    ClockTime start;
    double diff = 0;

    // The first runs of scrypt in a process are slower (its memory freshly
    // mapped, caches cold), by about a fifth: enough for a process that
    // derived nothing yet to pick a smaller logN than one that did, so that a
    // container would show how it was made. A run first, untimed, warms up.
    if (!emptyRun(128)) return QVScryptErrKDF;

    // Wait for the clock to tick, so the measurement starts on a tick.
    if (!readClock(&start)) return QVScryptErrClock;
    do {
        if (!emptyRun(16)) return QVScryptErrKDF;
        if (!secondsSince(start, &diff)) return QVScryptErrClock;
    } while (diff <= 0);

    // Each run with N = 128, r = 1 costs 512 Salsa20/8 core operations. The
    // timed stretch is a few dozen microseconds: one the scheduler cut into
    // would take the machine for several times slower than it is, so of three
    // the fastest counts.
    double fastest = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!readClock(&start)) return QVScryptErrClock;
        uint64_t count = 0;
        do {
            if (!emptyRun(128)) return QVScryptErrKDF;
            count += 512;
            if (!secondsSince(start, &diff)) return QVScryptErrClock;
        } while (diff <= 1e-6);
        fastest = std::max(fastest, static_cast<double>(count) / diff);
    }
    *opsPerSecond = fastest;
    return QVScryptOK;
}

QVScryptParams QVScryptPickParams(size_t memlimit, double opsPerSecond, double maxtime) {
    QVScryptParams out;
    double opslimit = opsPerSecond * maxtime;
    if (!(opslimit >= 32768)) opslimit = 32768;
    out.r = 8;

    double maxN;
    const bool cpuBound = static_cast<double>(memlimit >> 5) > opslimit;
    if (cpuBound) {
        out.p = 1;
        maxN = opslimit / (out.r * 4);
    } else {
        // Whole blocks of 128 * r bytes: the division is meant to truncate.
        maxN = static_cast<double>(memlimit / (size_t{out.r} * 128));
    }

    out.logN = 63;
    for (int logN = 1; logN <= 62; logN++) {
        if (static_cast<double>(uint64_t{1} << logN) > maxN / 2) {
            out.logN = logN;
            break;
        }
    }

    if (!cpuBound) {
        double maxrp = (opslimit / 4) / static_cast<double>(uint64_t{1} << out.logN);
        if (maxrp > 0x3fffffff)
            out.p = 0x7ffffff;
        else
            out.p = static_cast<uint32_t>(maxrp) / out.r;
    }
    return out;
}

std::string QVScryptParamsText(const QVScryptParams& params) {
    return std::to_string(params.logN) + " " + std::to_string(params.r) + " " + std::to_string(params.p);
}

std::optional<QVScryptParams> QVScryptParamsFromText(const std::string& text) {
    std::istringstream in(text);
    long long logN = 0, r = 0, p = 0;
    std::string rest;
    if (!(in >> logN >> r >> p) || (in >> rest)) return std::nullopt;
    if (logN < 1 || logN > 63 || r < 1 || p < 1 || r > UINT32_MAX || p > UINT32_MAX || r * p >= (1LL << 30))
        return std::nullopt;
    return QVScryptParams{static_cast<int>(logN), static_cast<uint32_t>(r), static_cast<uint32_t>(p)};
}

bool QVScryptDerive(const uint8_t* passwd, size_t passwdlen, const uint8_t* salt, size_t saltlen, uint64_t N,
                    uint32_t r, uint32_t p, uint8_t* out, size_t outlen) {
    // OpenSSL itself refuses r * p >= 2^30, an N that is not a power of two
    // above 1, and outputs longer than scrypt allows. The memory limit is
    // lifted: the callers have checked their own before deriving.
    int ok = EVP_PBE_scrypt(reinterpret_cast<const char*>(passwd), passwdlen, salt, saltlen, N, r, p, UINT64_MAX, out,
                            outlen);
    if (ok != 1) {
        ERR_clear_error();
        return false;
    }
    return true;
}

} // namespace qv

#pragma once
// How the cost of a scrypt container is fitted to the machine: the memory
// limit, the speed measurement, the choice of N, r and p, and the one
// derivation function every container goes through (OpenSSL's scrypt).
// The pure parts take their inputs as arguments so they can be checked
// against fixed numbers.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace qv {

// Failure numbers of the buffer functions (0 is success).
enum QVScryptResult : int {
    QVScryptOK = 0,
    QVScryptErrMemLimit = 1,     // memory limit could not be found
    QVScryptErrClock = 2,        // clock failed
    QVScryptErrKDF = 3,          // the scrypt function failed
    QVScryptErrSalt = 4,         // no salt could be read
    QVScryptErrKeySetup = 5,     // AES key setup failed
    QVScryptErrCTRMemory = 6,    // memory for the counter-mode state ran out
    QVScryptErrInvalid = 7,      // not a valid container
    QVScryptErrVersion = 8,      // unknown format version
    QVScryptErrTooMuchMemory = 9,
    QVScryptErrTooMuchTime = 10,
    QVScryptErrPassword = 11,    // wrong password for this container
};

// What the memory limit is computed from. A value with all bits set (which
// is also RLIM_INFINITY here) stands for "no limit" and is ignored.
struct QVScryptMemoryFacts {
    uint64_t physicalMemory = UINT64_MAX;
    uint64_t rlimitAS = UINT64_MAX;    // soft limits, read in this order
    uint64_t rlimitData = UINT64_MAX;
    uint64_t rlimitRSS = UINT64_MAX;
};

// Reads the physical memory (sysconf) and the soft RLIMIT_AS, RLIMIT_DATA and
// RLIMIT_RSS. Returns 0 or QVScryptErrMemLimit.
int QVScryptReadMemoryFacts(QVScryptMemoryFacts* facts);

// The least of the facts, times the fraction (0 or above 0.5 counts as 0.5),
// capped by maxmem when maxmem > 0, and never below 1 MiB.
size_t QVScryptMemLimitFrom(const QVScryptMemoryFacts& facts, size_t maxmem, double maxmemfrac);

// Both steps on this machine. Returns 0 or QVScryptErrMemLimit.
int QVScryptMemLimit(size_t maxmem, double maxmemfrac, size_t* memlimit);

// Salsa20/8 core operations per second, measured with scrypt itself (warmed up
// first, the fastest of three short timed stretches), so that the answer
// depends on the machine and not on the moment or on the process.
// Returns 0, QVScryptErrClock or QVScryptErrKDF.
int QVScryptMeasureSpeed(double* opsPerSecond);

struct QVScryptParams {
    int logN = 0;
    uint32_t r = 0;
    uint32_t p = 0;
};

// Picks logN, r and p that fit in `memlimit` bytes and about `maxtime`
// seconds at `opsPerSecond`.
QVScryptParams QVScryptPickParams(size_t memlimit, double opsPerSecond, double maxtime);

// The environment variable through which qv-image is told the parameters of a
// new image's token ("<logN> <r> <p>"), for images made many at a time whose
// tokens must not carry the parameters of a busy machine. Not a secret.
inline constexpr const char* QVImageScryptParamsVariable = "QV_IMAGE_SCRYPT_PARAMS";
std::string QVScryptParamsText(const QVScryptParams& params);
// Parameters read back from that text; nothing unless it is three whole numbers
// that a container can be made with (logN 1 to 63, r and p at least 1, r * p
// below 2^30).
std::optional<QVScryptParams> QVScryptParamsFromText(const std::string& text);

// The parameters fresh containers use while the test switch is on.
inline constexpr QVScryptParams QVScryptCheapParams{10, 8, 1};

// scrypt(passwd, salt, N, r, p) into out[0..outlen). No memory limit is
// imposed here; callers check theirs first. Returns true on success.
bool QVScryptDerive(const uint8_t* passwd, size_t passwdlen, const uint8_t* salt, size_t saltlen, uint64_t N,
                    uint32_t r, uint32_t p, uint8_t* out, size_t outlen);

} // namespace qv

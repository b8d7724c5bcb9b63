#include "vault/QVCrypto.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/random.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "toolkit/Log.h"
#include "vault/QVCryptoTesting.h"

namespace qv {

namespace {

// The limits every fresh container and every decryption is made with.
constexpr double kEncMaxMemFrac = 0.1;
constexpr double kEncMaxTime = 1.0;
constexpr double kDecMaxMemFrac = 1.0;
constexpr double kDecMaxTime = 10.0;
constexpr size_t kOverhead = 128;
// Runs of the speed measurement behind parameters that many containers share.
constexpr int kSharedMeasurements = 15;

// ---- random source -------------------------------------------------------

// Fills from OpenSSL's generator, falling back to the kernel's. Handing out
// predictable bytes where a password or pad is expected is worse than
// stopping, so a generator that fails both ways ends the process.
void fillRandom(uint8_t* p, size_t n) {
    while (n > 0) {
        int chunk = n > (1u << 20) ? (1 << 20) : static_cast<int>(n);
        if (RAND_bytes(p, chunk) != 1) {
            ssize_t got = getrandom(p, static_cast<size_t>(chunk), 0);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) {
                QV_LOG_ERROR("no random bytes from OpenSSL or the kernel; stopping");
                std::abort();
            }
            chunk = static_cast<int>(got);
        }
        p += chunk;
        n -= static_cast<size_t>(chunk);
    }
}

// Draws bytes from the generator in blocks; what was drawn and not used is
// cleansed with the pool.
class RandomPool {
public:
    ~RandomPool() { OPENSSL_cleanse(buf_, sizeof buf_); }
    uint8_t byte() {
        if (pos_ == sizeof buf_) {
            fillRandom(buf_, sizeof buf_);
            pos_ = 0;
        }
        return buf_[pos_++];
    }
    uint32_t word() {
        uint32_t w = 0;
        for (int i = 0; i < 4; i++) w = (w << 8) | byte();
        return w;
    }
    // Uniform in [0, bound); 0 when bound < 2. Values below 2^32 mod bound
    // are drawn again, which removes the modulo bias.
    uint32_t uniform(uint32_t bound) {
        if (bound < 2) return 0;
        const uint32_t min = (0u - bound) % bound;
        for (;;) {
            uint32_t w = word();
            if (w >= min) return w % bound;
        }
    }
    // The same over single bytes, for bounds up to 256.
    uint32_t uniformSmall(uint32_t bound) {
        if (bound < 2) return 0;
        const uint32_t min = (256u - bound) % bound;
        for (;;) {
            uint32_t b = byte();
            if (b >= min) return b % bound;
        }
    }

private:
    uint8_t buf_[256];
    size_t pos_ = sizeof buf_;
};

bool isSurrogate(uint32_t u) { return u >= 0xD800 && u <= 0xDFFF; }

void appendUTF8(std::string& out, uint32_t u) {
    if (u < 0x80) {
        out += static_cast<char>(u);
    } else if (u < 0x800) {
        out += static_cast<char>(0xC0 | (u >> 6));
        out += static_cast<char>(0x80 | (u & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (u >> 12));
        out += static_cast<char>(0x80 | ((u >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (u & 0x3F));
    }
}

// ---- secrets in temporaries ---------------------------------------------

// A copy of a secret string's bytes (a password, a plaintext), overwritten when it goes.
struct SecretCopy {
    Bytes bytes;
    explicit SecretCopy(const std::string& s) : bytes(s.begin(), s.end()) {}
    ~SecretCopy() { QVWipe(bytes); }
};

bool isUTF8(const Bytes& b) {
    if (b.empty()) return true;
    if (b.size() > static_cast<size_t>(INT32_MAX)) return false;
    UErrorCode status = U_ZERO_ERROR;
    int32_t needed = 0;
    // Preflighting validates the whole input without converting it.
    u_strFromUTF8(nullptr, 0, &needed, reinterpret_cast<const char*>(b.data()), static_cast<int32_t>(b.size()), &status);
    return status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status);
}

// A parameter value that is a whole number in [lo, hi].
bool integerIn(const Value& v, int64_t lo, int64_t hi, int64_t* out) {
    int64_t x;
    if (v.kind() == Value::Kind::Int) {
        x = v.toInt();
    } else if (v.kind() == Value::Kind::Real) {
        double d = v.toDouble();
        if (!std::isfinite(d) || d != std::floor(d) || d < -9.0e18 || d > 9.0e18) return false;
        x = static_cast<int64_t>(d);
    } else {
        return false;
    }
    if (x < lo || x > hi) return false;
    *out = x;
    return true;
}

uint32_t readBE32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

} // namespace

namespace QVCrypto {

std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password) {
    Bytes out(plaintext.size() + kOverhead);
    int rc = scryptenc_buf(plaintext.data(), plaintext.size(), out.data(), password.data(), password.size(), 0,
                           kEncMaxMemFrac, kEncMaxTime);
    if (rc != 0) {
        QV_LOG_ERROR(QVFormat("scryptenc_buf returned: %d", rc));
        return std::nullopt;
    }
    return out;
}

std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, DictRef* outParams) {
    if (!outParams || *outParams) {
        QV_LOG_FAILED("!outParams || *outParams");
        return std::nullopt;
    }
    auto container = encrypt(plaintext, password);
    if (!container) return std::nullopt;

    // Read back from the header just written, so the dictionary describes
    // exactly what the container holds.
    const uint8_t* h = container->data();
    auto params = std::make_shared<Dict>();
    (*params)[QVCryptoParamSalt] = Value(Bytes(h + 16, h + 48));
    (*params)[QVCryptoParamLogN] = Value(static_cast<int>(h[7]));
    (*params)[QVCryptoParamR] = Value(readBE32(h + 8));
    (*params)[QVCryptoParamP] = Value(readBE32(h + 12));
    *outParams = std::move(params);
    return container;
}

std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, const DictRef& params) {
    Value salt, logN, r, p;
    if (params) {
        salt = QVDictGet(*params, QVCryptoParamSalt);
        logN = QVDictGet(*params, QVCryptoParamLogN);
        r = QVDictGet(*params, QVCryptoParamR);
        p = QVDictGet(*params, QVCryptoParamP);
    }
    int64_t logNv = 0, rv = 0, pv = 0;
    const bool usable = salt.isData() && salt.toData().size() == 32 && integerIn(logN, INT32_MIN, INT32_MAX, &logNv) &&
                        integerIn(r, 0, UINT32_MAX, &rv) && integerIn(p, 0, UINT32_MAX, &pv);
    if (!usable) {
        QV_LOG_ERROR(QVFormat("%s %s %s %s", salt.description().c_str(), logN.description().c_str(),
                              r.description().c_str(), p.description().c_str()));
        return std::nullopt;
    }

    Bytes out(plaintext.size() + kOverhead);
    int rc = scryptenc_buf_given(plaintext.data(), plaintext.size(), out.data(), password.data(), password.size(),
                                 salt.toData().data(), static_cast<int>(logNv), static_cast<uint32_t>(rv),
                                 static_cast<uint32_t>(pv));
    if (rc != 0) {
        QV_LOG_ERROR(QVFormat("scryptenc_buf_given returned: %d", rc));
        return std::nullopt;
    }
    return out;
}

std::optional<Bytes> encryptWithString(const Bytes& plaintext, const std::string& password) {
    SecretCopy pw(password);
    return encrypt(plaintext, pw.bytes);
}

std::optional<Bytes> encryptString(const std::string& plaintext, const std::string& password) {
    SecretCopy text(plaintext);
    SecretCopy pw(password);
    return encrypt(text.bytes, pw.bytes);
}

bool parametersForFreshContainers(QVScryptParams* params) {
    if (QVCryptoCheapParametersForTesting()) {
        *params = QVScryptCheapParams;
        return true;
    }
    // One run of the measurement is short and now and then lands far off (a
    // preempted run, a cold cache). A lone save lives with that; parameters
    // that many containers will share must be the machine's typical ones, so
    // they come from the median of several runs.
    size_t memlimit = 0;
    int rc = QVScryptMemLimit(0, kEncMaxMemFrac, &memlimit);
    std::vector<double> speeds;
    for (int run = 0; rc == 0 && run < kSharedMeasurements; ++run) {
        double opsPerSecond = 0;
        rc = QVScryptMeasureSpeed(&opsPerSecond);
        speeds.push_back(opsPerSecond);
    }
    if (rc != 0) {
        QV_LOG_ERROR(QVFormat("measuring scrypt parameters returned: %d", rc));
        return false;
    }
    std::nth_element(speeds.begin(), speeds.begin() + long(speeds.size() / 2), speeds.end());
    *params = QVScryptPickParams(memlimit, speeds[speeds.size() / 2], kEncMaxTime);
    return true;
}

std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, const QVScryptParams& params) {
    Bytes out(plaintext.size() + kOverhead);
    int rc =
        scryptenc_buf_params(plaintext.data(), plaintext.size(), out.data(), password.data(), password.size(), params);
    if (rc != 0) {
        QV_LOG_ERROR(QVFormat("scryptenc_buf returned: %d", rc));
        return std::nullopt;
    }
    return out;
}

std::optional<Bytes> encryptWithString(const Bytes& plaintext, const std::string& password,
                                       const QVScryptParams& params) {
    SecretCopy pw(password);
    return encrypt(plaintext, pw.bytes, params);
}

std::optional<Bytes> encryptString(const std::string& plaintext, const std::string& password,
                                   const QVScryptParams& params) {
    SecretCopy text(plaintext);
    SecretCopy pw(password);
    return encrypt(text.bytes, pw.bytes, params);
}

std::optional<Bytes> decrypt(const Bytes& container, const Bytes& password) {
    Bytes out(container.size());
    size_t outlen = 0;
    int rc = scryptdec_buf(container.data(), container.size(), out.data(), &outlen, password.data(), password.size(),
                           0, kDecMaxMemFrac, kDecMaxTime);
    if (rc != 0) {
        QVWipe(out);
        QV_LOG_ERROR(QVFormat("scryptdec_buf returned: %d", rc));
        return std::nullopt;
    }
    out.resize(outlen);
    return out;
}

std::optional<Bytes> decryptWithString(const Bytes& container, const std::string& password) {
    SecretCopy pw(password);
    return decrypt(container, pw.bytes);
}

std::optional<std::string> decryptString(const Bytes& container, const Bytes& password) {
    auto plain = decrypt(container, password);
    if (!plain) return std::nullopt;
    std::optional<std::string> text;
    if (isUTF8(*plain))
        text.emplace(plain->begin(), plain->end());
    else
        QV_LOG_ERROR("decrypted data is not UTF-8 text");
    QVWipe(*plain);
    return text;
}

std::optional<std::string> decryptStringWithString(const Bytes& container, const std::string& password) {
    SecretCopy pw(password);
    return decryptString(container, pw.bytes);
}

Bytes randomDataOfLength(uint64_t length, uint8_t low, uint8_t high) {
    Bytes out(length, low);
    if (high <= low) return out;
    RandomPool pool;
    const uint32_t span = static_cast<uint32_t>(high - low);
    for (auto& b : out) b = static_cast<uint8_t>(low + pool.uniformSmall(span));
    return out;
}

std::string randomStringOfLength(uint64_t length, uint16_t low, uint16_t high) {
    if (high < low) std::swap(low, high);
    // A lone UTF-16 surrogate has no UTF-8 form; those values are drawn again,
    // so the result stays uniform over the rest of the range.
    const bool allSurrogates = isSurrogate(low) && isSurrogate(high);
    std::string out;
    if (allSurrogates) return out;
    out.reserve(length);
    RandomPool pool;
    const uint32_t span = uint32_t{high} - low + 1;
    for (uint64_t i = 0; i < length; i++) {
        uint32_t u;
        do {
            u = low + (span <= 256 ? pool.uniformSmall(span) : pool.uniform(span));
        } while (isSurrogate(u));
        appendUTF8(out, u);
    }
    return out;
}

std::string randomPasswordOfLength(uint64_t length) { return randomStringOfLength(length, 0x21, 0x7E); }

uint32_t randomIntegerBetween(uint32_t a, uint32_t b) {
    const uint32_t lo = a < b ? a : b;
    const uint32_t hi = a < b ? b : a;
    RandomPool pool;
    // The full 32-bit range has 2^32 values, one more than a bound can say.
    if (lo == 0 && hi == UINT32_MAX) return pool.word();
    return lo + pool.uniform(hi - lo + 1);
}

} // namespace QVCrypto

void QVWipe(void* p, size_t n) {
    if (!p || n == 0) return;
    OPENSSL_cleanse(p, n);
    // Random rather than zero bytes, so a wiped buffer doesn't stand out.
    // Cleansing first means a failing generator still leaves nothing behind.
    if (n <= static_cast<size_t>(INT32_MAX)) RAND_bytes(static_cast<unsigned char*>(p), static_cast<int>(n));
}

void QVWipe(std::string& s) {
    // Also the spare capacity: a string that shrank may still hold old bytes.
    const size_t n = s.size();
    s.resize(s.capacity());
    QVWipe(s.data(), s.size());
    s.resize(n);
}

void QVWipe(Bytes& b) {
    const size_t n = b.size();
    b.resize(b.capacity());
    QVWipe(b.data(), b.size());
    b.resize(n);
}

} // namespace qv

// The scrypt container, format version 0:
//
//   0   6  "scrypt"
//   6   1  format version, 0
//   7   1  logN
//   8   4  r, big-endian
//   12  4  p, big-endian
//   16  32 salt
//   48  16 first half of SHA-256 over bytes 0..47
//   64  32 HMAC-SHA-256 over bytes 0..63 under the derived key's second half
//   96  n  the plaintext in AES-256-CTR under the derived key's first half,
//          counter a 128-bit big-endian number from 0
//   96+n 32 HMAC-SHA-256 over bytes 0..95+n
//
// The derived key is 64 bytes of scrypt(password, salt, 2^logN, r, p).
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "vault/QVCrypto.h"
#include "vault/QVCryptoTesting.h"
#include "vault/ScryptParams.h"

namespace qv {

namespace {

constexpr size_t kSaltLen = 32;
constexpr size_t kHeaderLen = 96;
constexpr size_t kMacLen = 32;
constexpr size_t kOverhead = kHeaderLen + kMacLen;

// The 64 derived bytes: AES key first, HMAC key second. Zeroed however the
// function holding it returns.
struct DerivedKey {
    uint8_t bytes[64] = {};
    ~DerivedKey() { OPENSSL_cleanse(bytes, sizeof bytes); }
    const uint8_t* aesKey() const { return bytes; }
    const uint8_t* hmacKey() const { return bytes + 32; }
};

void putBE32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

uint32_t getBE32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

bool hmacSHA256(const uint8_t* key, const uint8_t* data, size_t len, uint8_t out[kMacLen]) {
    unsigned int outLen = 0;
    return HMAC(EVP_sha256(), key, 32, data, len, out, &outLen) != nullptr && outLen == kMacLen;
}

bool headerChecksum(const uint8_t* header, uint8_t out[SHA256_DIGEST_LENGTH]) {
    return SHA256(header, 48, out) != nullptr;
}

// AES-256-CTR from a zero counter. Freeing the context cleanses the
// expanded key schedule.
int ctrCrypt(const uint8_t* key, const uint8_t* in, size_t len, uint8_t* out) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    if (!ctx) return QVScryptErrCTRMemory;
    static const uint8_t zeroCounter[16] = {};
    int rc = QVScryptOK;
    if (EVP_EncryptInit_ex(ctx, EVP_aes_256_ctr(), nullptr, key, zeroCounter) != 1) {
        rc = QVScryptErrKeySetup;
    } else {
        constexpr size_t kChunk = size_t{1} << 30;
        while (len > 0) {
            size_t n = len < kChunk ? len : kChunk;
            int outl = 0;
            if (EVP_EncryptUpdate(ctx, out, &outl, in, static_cast<int>(n)) != 1 || static_cast<size_t>(outl) != n) {
                rc = QVScryptErrKeySetup;
                break;
            }
            in += n;
            out += n;
            len -= n;
        }
    }
    EVP_CIPHER_CTX_free(ctx);
    return rc;
}

// Reads the salt from /dev/urandom, all of it or nothing.
int readSalt(uint8_t* salt, size_t len) {
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return QVScryptErrSalt;
    int rc = QVScryptOK;
    size_t got = 0;
    while (got < len) {
        ssize_t n = read(fd, salt + got, len - got);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            rc = QVScryptErrSalt;
            break;
        }
    }
    // Linux releases the descriptor even when close() reports EINTR, so it is
    // never retried: a second close could hit a descriptor another thread has
    // just opened. EINTR therefore counts as closed.
    if (close(fd) != 0 && errno != EINTR) rc = QVScryptErrSalt;
    return rc;
}

// Everything after the parameters are known: derive, header, body, trailer.
int encryptGiven(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd, size_t passwdlen,
                 const uint8_t* salt, int logN, uint32_t r, uint32_t p) {
    if (logN < 1 || logN > 63) return QVScryptErrKDF;
    DerivedKey dk;
    if (!QVScryptDerive(passwd, passwdlen, salt, kSaltLen, uint64_t{1} << logN, r, p, dk.bytes, sizeof dk.bytes))
        return QVScryptErrKDF;

    uint8_t header[kHeaderLen];
    memcpy(header, "scrypt", 6);
    header[6] = 0;
    header[7] = static_cast<uint8_t>(logN);
    putBE32(header + 8, r);
    putBE32(header + 12, p);
    memcpy(header + 16, salt, kSaltLen);
    uint8_t hash[SHA256_DIGEST_LENGTH];
    if (!headerChecksum(header, hash)) return QVScryptErrCTRMemory;
    memcpy(header + 48, hash, 16);
    if (!hmacSHA256(dk.hmacKey(), header, 64, header + 64)) return QVScryptErrCTRMemory;

    if (int rc = ctrCrypt(dk.aesKey(), inbuf, inbuflen, outbuf + kHeaderLen)) {
        OPENSSL_cleanse(outbuf + kHeaderLen, inbuflen);
        return rc;
    }
    memcpy(outbuf, header, kHeaderLen);
    if (!hmacSHA256(dk.hmacKey(), outbuf, kHeaderLen + inbuflen, outbuf + kHeaderLen + inbuflen)) {
        OPENSSL_cleanse(outbuf, kOverhead + inbuflen);
        return QVScryptErrCTRMemory;
    }
    return QVScryptOK;
}

} // namespace

int scryptenc_buf(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd, size_t passwdlen,
                  size_t maxmem, double maxmemfrac, double maxtime) {
    QVScryptParams params = QVScryptCheapParams;
    if (!QVCryptoCheapParametersForTesting()) {
        size_t memlimit = 0;
        double opsPerSecond = 0;
        if (int rc = QVScryptMemLimit(maxmem, maxmemfrac, &memlimit)) return rc;
        if (int rc = QVScryptMeasureSpeed(&opsPerSecond)) return rc;
        params = QVScryptPickParams(memlimit, opsPerSecond, maxtime);
    }
    uint8_t salt[kSaltLen];
    if (int rc = readSalt(salt, sizeof salt)) return rc;
    return encryptGiven(inbuf, inbuflen, outbuf, passwd, passwdlen, salt, params.logN, params.r, params.p);
}

int scryptenc_buf_params(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd,
                         size_t passwdlen, const QVScryptParams& params) {
    uint8_t salt[kSaltLen];
    if (int rc = readSalt(salt, sizeof salt)) return rc;
    return encryptGiven(inbuf, inbuflen, outbuf, passwd, passwdlen, salt, params.logN, params.r, params.p);
}

int scryptenc_buf_given(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd,
                        size_t passwdlen, const uint8_t* salt, int logN, uint32_t r, uint32_t p) {
    return encryptGiven(inbuf, inbuflen, outbuf, passwd, passwdlen, salt, logN, r, p);
}

int scryptdec_buf(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, size_t* outlen, const uint8_t* passwd,
                  size_t passwdlen, size_t maxmem, double maxmemfrac, double maxtime) {
    if (inbuflen < 7 || memcmp(inbuf, "scrypt", 6) != 0) return QVScryptErrInvalid;
    if (inbuf[6] != 0) return QVScryptErrVersion;
    if (inbuflen < kOverhead) return QVScryptErrInvalid;

    uint8_t hash[SHA256_DIGEST_LENGTH];
    if (!headerChecksum(inbuf, hash)) return QVScryptErrCTRMemory;
    if (CRYPTO_memcmp(hash, inbuf + 48, 16) != 0) return QVScryptErrInvalid;

    size_t memlimit = 0;
    double opsPerSecond = 0;
    if (int rc = QVScryptMemLimit(maxmem, maxmemfrac, &memlimit)) return rc;
    if (int rc = QVScryptMeasureSpeed(&opsPerSecond)) return rc;
    const double opslimit = opsPerSecond * maxtime;

    const int logN = inbuf[7];
    const uint32_t r = getBE32(inbuf + 8);
    const uint32_t p = getBE32(inbuf + 12);
    // r or p of 0 can't be derived and would divide by zero below.
    if (logN < 1 || logN > 63 || r == 0 || p == 0 || uint64_t{r} * p >= 0x40000000) return QVScryptErrInvalid;
    const uint64_t N = uint64_t{1} << logN;

    if ((memlimit / N) / r < 128) {
        (void)fprintf(stderr, "Error 9 in scryptdec_buf! memlimit = %llu, N = %llu, opslimit = %g, r = %u, p = %u\n",
                static_cast<unsigned long long>(memlimit), static_cast<unsigned long long>(N), opslimit, r, p);
        return QVScryptErrTooMuchMemory;
    }
    if ((opslimit / static_cast<double>(N)) / (static_cast<double>(r) * p) < 4) return QVScryptErrTooMuchTime;

    DerivedKey dk;
    if (!QVScryptDerive(passwd, passwdlen, inbuf + 16, kSaltLen, N, r, p, dk.bytes, sizeof dk.bytes))
        return QVScryptErrKDF;

    uint8_t mac[kMacLen];
    if (!hmacSHA256(dk.hmacKey(), inbuf, 64, mac)) return QVScryptErrCTRMemory;
    if (CRYPTO_memcmp(mac, inbuf + 64, kMacLen) != 0) return QVScryptErrPassword;

    // The trailer is checked before anything is decrypted, so a damaged
    // container never puts unauthenticated plaintext in the caller's buffer.
    const size_t n = inbuflen - kOverhead;
    if (!hmacSHA256(dk.hmacKey(), inbuf, kHeaderLen + n, mac)) return QVScryptErrCTRMemory;
    if (CRYPTO_memcmp(mac, inbuf + kHeaderLen + n, kMacLen) != 0) return QVScryptErrInvalid;

    if (int rc = ctrCrypt(dk.aesKey(), inbuf + kHeaderLen, n, outbuf)) {
        OPENSSL_cleanse(outbuf, n);
        return rc;
    }
    *outlen = n;
    return QVScryptOK;
}

} // namespace qv

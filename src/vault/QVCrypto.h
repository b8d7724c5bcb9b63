#pragma once
// Password-based encryption: the scrypt container (format version 0 of the
// published scrypt file-encryption tool, byte for byte), the deterministic
// variant behind the master file's lookup keys, and the random helpers.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "vault/ScryptParams.h"
#include "vault/Value.h"

namespace qv {

// Keys of a parameter dictionary.
inline constexpr const char* QVCryptoParamSalt = "QVCryptoParamSalt";  // data, 32 bytes
inline constexpr const char* QVCryptoParamLogN = "QVCryptoParamLogN";  // int32
inline constexpr const char* QVCryptoParamR = "QVCryptoParamR";        // uint32
inline constexpr const char* QVCryptoParamP = "QVCryptoParamP";        // uint32

// The buffer functions. Return 0 on success or the failure number 1..11.
// outbuf of scryptenc_buf* must hold inbuflen + 128 bytes; outbuf of
// scryptdec_buf must hold inbuflen bytes.
int scryptenc_buf(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd, size_t passwdlen,
                  size_t maxmem, double maxmemfrac, double maxtime);
int scryptdec_buf(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, size_t* outlen, const uint8_t* passwd,
                  size_t passwdlen, size_t maxmem, double maxmemfrac, double maxtime);
int scryptenc_buf_given(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd,
                        size_t passwdlen, const uint8_t* salt, int logN, uint32_t r, uint32_t p);
// A fresh random salt, parameters chosen beforehand (no measurement here).
int scryptenc_buf_params(const uint8_t* inbuf, size_t inbuflen, uint8_t* outbuf, const uint8_t* passwd,
                         size_t passwdlen, const QVScryptParams& params);

// The extension operations. A null result means failure (the number is logged);
// they hold no state and may run on any thread.
namespace QVCrypto {
// encrypt: on data
std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password);
// encrypt:outParams: *outParams must be non-null-pointer and hold null; receives a new dictionary.
std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, DictRef* outParams);
// encrypt:withParams:
std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, const DictRef& params);
std::optional<Bytes> encryptWithString(const Bytes& plaintext, const std::string& password);
// encrypt: on a string: the container of the string's UTF-8 bytes.
std::optional<Bytes> encryptString(const std::string& plaintext, const std::string& password);

// The parameters a fresh container gets on this machine (the memory limit, the
// speed measurement and the pick that `encrypt` does each time, the speed
// taken as the median of several runs), for work that makes many containers at
// once: measured while the machine is busy with them, each container would
// carry cheaper parameters than a lone save does. False (logged) when the
// limit or the speed can't be found.
bool parametersForFreshContainers(QVScryptParams* params);
// Fresh containers (random salt) under parameters measured once beforehand.
std::optional<Bytes> encrypt(const Bytes& plaintext, const Bytes& password, const QVScryptParams& params);
std::optional<Bytes> encryptWithString(const Bytes& plaintext, const std::string& password,
                                       const QVScryptParams& params);
std::optional<Bytes> encryptString(const std::string& plaintext, const std::string& password,
                                   const QVScryptParams& params);

std::optional<Bytes> decrypt(const Bytes& container, const Bytes& password);
std::optional<Bytes> decryptWithString(const Bytes& container, const std::string& password);
std::optional<std::string> decryptString(const Bytes& container, const Bytes& password);
std::optional<std::string> decryptStringWithString(const Bytes& container, const std::string& password);

// Each byte low + uniform(high - low): `high` itself never comes out.
Bytes randomDataOfLength(uint64_t length, uint8_t low, uint8_t high);
// Each character one UTF-16 unit low + uniform(high - low + 1), both ends included; UTF-8 encoded.
std::string randomStringOfLength(uint64_t length, uint16_t low, uint16_t high);
// Printable ASCII without the space (0x21..0x7E).
std::string randomPasswordOfLength(uint64_t length);
// Arguments in either order; both ends included.
uint32_t randomIntegerBetween(uint32_t a, uint32_t b);
} // namespace QVCrypto

// Overwrite secrets in place (not optimised away).
void QVWipe(void* p, size_t n);
void QVWipe(std::string& s);
void QVWipe(Bytes& b);

// Overwrites a secret (a std::string or Bytes) when it goes out of scope,
// whichever way the scope is left.
template <class Secret>
class QVWipeOnExit {
public:
    explicit QVWipeOnExit(Secret& secret) : secret_(secret) {}
    ~QVWipeOnExit() { QVWipe(secret_); }
    QVWipeOnExit(const QVWipeOnExit&) = delete;
    QVWipeOnExit& operator=(const QVWipeOnExit&) = delete;

private:
    Secret& secret_;
};

} // namespace qv

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>

#include "toolkit/LogCapture.h"
#include "vault/QVCrypto.h"

using namespace qv;

namespace {

using qv::test::LogCapture;

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }
const Bytes kPass = B(std::string("pass\0word", 9));
const Bytes kSalt(32, 0x5a);

int decryptCode(const Bytes& c, const Bytes& pass = kPass) {
    Bytes out(c.size());
    size_t outlen = 0;
    return scryptdec_buf(c.data(), c.size(), out.data(), &outlen, pass.data(), pass.size(), 0, 1.0, 10.0);
}

// Changes header fields and rewrites the checksum over them.
Bytes withHeader(Bytes c, int version, int logN, uint32_t r, uint32_t p) {
    c[6] = static_cast<uint8_t>(version);
    c[7] = static_cast<uint8_t>(logN);
    for (int i = 0; i < 4; i++) c[8 + i] = static_cast<uint8_t>(r >> (24 - 8 * i));
    for (int i = 0; i < 4; i++) c[12 + i] = static_cast<uint8_t>(p >> (24 - 8 * i));
    uint8_t h[SHA256_DIGEST_LENGTH];
    SHA256(c.data(), 48, h);
    std::copy(h, h + 16, c.begin() + 48);
    return c;
}

DictRef params(const Bytes& salt, Value logN, Value r = 8u, Value p = 1u) {
    return std::make_shared<Dict>(Dict{{QVCryptoParamSalt, Value(salt)},
                                       {QVCryptoParamLogN, logN},
                                       {QVCryptoParamR, r},
                                       {QVCryptoParamP, p}});
}

} // namespace

TEST(QVCryptoContainer, RoundTripsAtEverySizeWithTheFixedLayout) {
    for (size_t n : {0, 1, 17, 65537}) {
        Bytes plain = QVCrypto::randomDataOfLength(n, 0, 255);
        auto c = QVCrypto::encrypt(plain, kPass);
        ASSERT_TRUE(c && c->size() == n + 128) << n;
        // "scrypt", version 0, the test switch's logN 10, r 8 and p 1 big-endian.
        EXPECT_EQ(Bytes(c->begin(), c->begin() + 16), B(std::string("scrypt\0\x0a\0\0\0\x08\0\0\0\x01", 16)));
        EXPECT_EQ(*c, withHeader(*c, 0, 10, 8, 1));  // the checksum is SHA-256's first half
        EXPECT_EQ(QVCrypto::decrypt(*c, kPass), plain) << n;
    }
}

// Fresh salts differ; given parameters repeat; bad ones are never derived from.
TEST(QVCryptoContainer, SaltsAndGivenParameters) {
    EXPECT_NE(QVCrypto::encrypt(B("same"), kPass), QVCrypto::encrypt(B("same"), kPass));
    auto x = QVCrypto::encrypt(B("same"), kPass, params(kSalt, 10));
    ASSERT_TRUE(x);
    EXPECT_EQ(x, QVCrypto::encrypt(B("same"), kPass, params(kSalt, 10)));
    EXPECT_EQ(Bytes(x->begin() + 16, x->begin() + 48), kSalt);

    LogCapture quiet;
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, static_cast<DictRef*>(nullptr)));
    auto missing = params(kSalt, 10);
    missing->erase(QVCryptoParamLogN);
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, missing));
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(Bytes(16, 1), 10)));
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(kSalt, 10, "8")));
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(kSalt, 10, 8u, -1)));
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(kSalt, 64)));  // fails in the derivation
}

TEST(QVCryptoContainer, DamageWrongPasswordAndTruncation) {
    const Bytes plain = B("some secret bytes, longer than one block");
    auto c = QVCrypto::encrypt(plain, kPass);
    ASSERT_TRUE(c);
    const size_t n = plain.size();
    // logN, r and salt are guarded by the checksum; the header HMAC can't tell
    // damage from a wrong password.
    const std::pair<size_t, int> flips[] = {{7, 7}, {20, 7}, {50, 7}, {70, 11}, {96, 7}, {96 + n, 7}, {127 + n, 7}};
    for (auto [offset, expected] : flips) {
        Bytes d = *c;
        d[offset] ^= 0x80;
        EXPECT_EQ(decryptCode(d), expected) << offset;
    }
    for (size_t len : {0, 7, 128}) EXPECT_EQ(decryptCode(Bytes(c->begin(), c->begin() + len)), 7) << len;
    // The version is judged before the length.
    EXPECT_EQ(decryptCode(B(std::string("scrypt\x01", 7))), 8);
    EXPECT_EQ(decryptCode(withHeader(*c, 1, 10, 8, 1)), 8);

    // Wrong password, or a damaged trailer: nothing reaches the output buffer.
    Bytes bad = *c;
    bad.back() ^= 1;
    const Bytes wrong = B("pass");
    for (auto [container, pass, expected] : {std::tuple{*c, wrong, 11}, std::tuple{bad, kPass, 7}}) {
        Bytes out(c->size(), 0xEE);
        size_t outlen = 99;
        EXPECT_EQ(scryptdec_buf(container.data(), container.size(), out.data(), &outlen, pass.data(), pass.size(), 0,
                                1.0, 10.0),
                  expected);
        EXPECT_TRUE(out == Bytes(c->size(), 0xEE) && outlen == 99u);
    }

    // Implausible parameters are refused before deriving.
    EXPECT_EQ(decryptCode(withHeader(*c, 0, 64, 8, 1)), 7);
    EXPECT_EQ(decryptCode(withHeader(*c, 0, 10, 8, 0)), 7);
    EXPECT_EQ(decryptCode(withHeader(*c, 0, 10, 1 << 15, 1 << 15)), 7);
    // More memory than half of this machine: error 9 (and a line on stderr).
    testing::internal::CaptureStderr();
    EXPECT_EQ(decryptCode(withHeader(*c, 0, 40, 8, 1)), 9);
    (void)testing::internal::GetCapturedStderr();
    // Little memory but 2^29 times the work: error 10.
    EXPECT_EQ(decryptCode(withHeader(*c, 0, 10, 8, 1 << 26)), 10);
}

TEST(QVCryptoContainer, FrozenSampleOpensAndIsReproduced) {
    // Written once by the scrypt file tool, logN 10, r 8, p 1.
    std::ifstream f(std::string(QV_FIXTURES_DIR) + "/container-v0.scrypt", std::ios::binary);
    const Bytes sample((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(sample.size(), 194u);
    const std::string text = "Quillvane frozen container, format version 0.\nSecond line: \xc3\xa9t\xc3\xa9.\n";
    const std::string pw = "correct horse battery staple";
    EXPECT_EQ(QVCrypto::decryptStringWithString(sample, pw), text);
    EXPECT_FALSE(QVCrypto::decryptWithString(sample, pw + "!"));
    auto d = params(Bytes(sample.begin() + 16, sample.begin() + 48), int{sample[7]});
    EXPECT_EQ(QVCrypto::encrypt(B(text), B(pw), d), sample);
}

// Generated image passwords use every printable character, not a smaller set.
TEST(QVCryptoRandom, PasswordsCoverThePrintableRange) {
    std::string pw = QVCrypto::randomPasswordOfLength(5000);
    EXPECT_EQ(std::set<char>(pw.begin(), pw.end()).size(), 94u);
}

TEST(QVCryptoWipe, OverwritesInPlace) {
    Bytes b(64, 'A');
    const uint8_t* where = b.data();
    QVWipe(b);
    EXPECT_TRUE(b.data() == where && b != Bytes(64, 'A'));
    std::string s(40, 'A');
    QVWipe(s);
    EXPECT_NE(s, std::string(40, 'A'));
}

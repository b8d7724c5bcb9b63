#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "toolkit/Log.h"
#include "vault/QVCrypto.h"
#include "vault/ScryptParams.h"

using namespace qv;

namespace {

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Collects logged lines for the life of the object.
class LogCapture {
public:
    LogCapture() {
        previous_ = QVLogSetSink([this](const std::string& line) { lines_.push_back(line); });
    }
    ~LogCapture() { QVLogSetSink(previous_); }
    bool contains(const std::string& needle) const {
        return std::any_of(lines_.begin(), lines_.end(),
                           [&](const std::string& l) { return l.find(needle) != std::string::npos; });
    }
    const std::vector<std::string>& lines() const { return lines_; }

private:
    QVLogSink previous_;
    std::vector<std::string> lines_;
};

int decryptCode(const Bytes& c, const Bytes& pass, Bytes* plain = nullptr) {
    Bytes out(c.size());
    size_t outlen = 0;
    int rc = scryptdec_buf(c.data(), c.size(), out.data(), &outlen, pass.data(), pass.size(), 0, 1.0, 10.0);
    if (rc == 0 && plain) *plain = Bytes(out.begin(), out.begin() + static_cast<long>(outlen));
    return rc;
}

// Rewrites the header's checksum after a deliberate change to bytes 0..47.
void fixChecksum(Bytes& c) {
    uint8_t h[SHA256_DIGEST_LENGTH];
    SHA256(c.data(), 48, h);
    std::copy(h, h + 16, c.begin() + 48);
}

void putBE32(Bytes& c, size_t at, uint32_t v) {
    for (int i = 0; i < 4; i++) c[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

DictRef params(const Bytes& salt, int logN, uint32_t r, uint32_t p) {
    auto d = std::make_shared<Dict>();
    (*d)[QVCryptoParamSalt] = Value(salt);
    (*d)[QVCryptoParamLogN] = Value(logN);
    (*d)[QVCryptoParamR] = Value(r);
    (*d)[QVCryptoParamP] = Value(p);
    return d;
}

Bytes readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

const Bytes kPass = B(std::string("pass\0word with a NUL", 21));
const Bytes kSalt(32, 0x5a);

} // namespace

TEST(QVCryptoContainer, RoundTripsAtEverySizeWithTheFixedLayout) {
    for (size_t n : {0, 1, 15, 16, 17, 1000, 65537}) {
        Bytes plain = QVCrypto::randomDataOfLength(n, 0, 255);
        auto c = QVCrypto::encrypt(plain, kPass);
        ASSERT_TRUE(c) << n;
        ASSERT_EQ(c->size(), n + 128);
        EXPECT_EQ(std::string(c->begin(), c->begin() + 6), "scrypt");
        EXPECT_EQ((*c)[6], 0);
        // The test switch's cheap parameters, big-endian r and p.
        EXPECT_EQ((*c)[7], 10);
        EXPECT_EQ(Bytes(c->begin() + 8, c->begin() + 16), (Bytes{0, 0, 0, 8, 0, 0, 0, 1}));
        uint8_t h[SHA256_DIGEST_LENGTH];
        SHA256(c->data(), 48, h);
        EXPECT_TRUE(std::equal(h, h + 16, c->begin() + 48));
        if (n >= 16) {
            EXPECT_NE(Bytes(c->begin() + 96, c->begin() + 112), Bytes(plain.begin(), plain.begin() + 16));
        }

        auto back = QVCrypto::decrypt(*c, kPass);
        ASSERT_TRUE(back) << n;
        EXPECT_EQ(*back, plain);
    }
}

TEST(QVCryptoContainer, FreshContainersDifferDeterministicOnesDoNot) {
    auto a = QVCrypto::encrypt(B("same"), kPass);
    auto b = QVCrypto::encrypt(B("same"), kPass);
    ASSERT_TRUE(a && b);
    EXPECT_NE(*a, *b);
    EXPECT_NE(Bytes(a->begin() + 16, a->begin() + 48), Bytes(b->begin() + 16, b->begin() + 48));

    auto d = params(kSalt, 10, 8, 1);
    auto x = QVCrypto::encrypt(B("same"), kPass, d);
    auto y = QVCrypto::encrypt(B("same"), kPass, d);
    ASSERT_TRUE(x && y);
    EXPECT_EQ(*x, *y);
    EXPECT_EQ(Bytes(x->begin() + 16, x->begin() + 48), kSalt);
    EXPECT_NE(*x, *QVCrypto::encrypt(B("same"), B("other"), d));
    EXPECT_EQ(*QVCrypto::decrypt(*x, kPass), B("same"));
}

TEST(QVCryptoContainer, OutParamsDescribeTheContainerExactly) {
    DictRef out;
    auto c = QVCrypto::encrypt(B("lookup text"), kPass, &out);
    ASSERT_TRUE(c);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->size(), 4u);
    Value salt = QVDictGet(*out, QVCryptoParamSalt);
    ASSERT_TRUE(salt.isData());
    EXPECT_EQ(salt.toData(), Bytes(c->begin() + 16, c->begin() + 48));
    EXPECT_EQ(QVDictGet(*out, QVCryptoParamLogN).toInt(), 10);
    EXPECT_EQ(QVDictGet(*out, QVCryptoParamR).toInt(), 8);
    EXPECT_EQ(QVDictGet(*out, QVCryptoParamP).toInt(), 1);
    // The same parameters given back reproduce the container byte for byte.
    auto again = QVCrypto::encrypt(B("lookup text"), kPass, out);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, *c);
}

TEST(QVCryptoContainer, OutParamsMustBePresentAndEmpty) {
    LogCapture log;
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, static_cast<DictRef*>(nullptr)));
    DictRef full = std::make_shared<Dict>();
    DictRef before = full;
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, &full));
    EXPECT_EQ(full, before);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_NE(log.lines()[0].find("ERROR ("), std::string::npos);
    EXPECT_NE(log.lines()[0].find("): failed because: !outParams || *outParams"), std::string::npos);
}

TEST(QVCryptoContainer, WithParamsLogsTheFourValuesWhenOneIsMissingOrUnusable) {
    {
        LogCapture log;
        EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, DictRef()));
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_NE(log.lines()[0].find("): (null) (null) (null) (null)"), std::string::npos) << log.lines()[0];
    }
    {
        LogCapture log;
        auto d = params(kSalt, 10, 8, 1);
        d->erase(QVCryptoParamLogN);
        EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, d));
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_NE(log.lines()[0].find("): <5a5a5a5a 5a5a5a5a"), std::string::npos) << log.lines()[0];
        EXPECT_NE(log.lines()[0].find("5a5a5a5a> (null) 8 1"), std::string::npos) << log.lines()[0];
    }
    // Wrong kinds, a short salt, or numbers out of range never reach the derivation.
    std::vector<DictRef> bad = {params(Bytes(16, 1), 10, 8, 1), params(kSalt, 10, 8, 1), params(kSalt, 10, 8, 1)};
    (*bad[1])[QVCryptoParamR] = Value("8");
    (*bad[2])[QVCryptoParamP] = Value(-1);
    for (auto& d : bad) {
        LogCapture log;
        EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, d));
        EXPECT_EQ(log.lines().size(), 1u);
    }
}

TEST(QVCryptoContainer, WithParamsOutsideScryptsDomainFailsAsDerivation) {
    for (int logN : {0, -1, 64, 200}) {
        LogCapture log;
        EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(kSalt, logN, 8, 1))) << logN;
        EXPECT_TRUE(log.contains("scryptenc_buf_given returned: 3")) << logN;
    }
    LogCapture log;
    EXPECT_FALSE(QVCrypto::encrypt(B("x"), kPass, params(kSalt, 10, 0, 1)));
    EXPECT_TRUE(log.contains("scryptenc_buf_given returned: 3"));
}

TEST(QVCryptoContainer, DamageIsDetectedWhereverItIs) {
    const Bytes plain = B("some secret bytes, a little longer than one block");
    auto c = QVCrypto::encrypt(plain, kPass);
    ASSERT_TRUE(c);
    const size_t n = plain.size();
    struct Case {
        size_t offset;
        int expected;
        const char* what;
    };
    const Case cases[] = {
        {7, 7, "logN (checksum)"},       {9, 7, "r (checksum)"},        {20, 7, "salt (checksum)"},
        {50, 7, "checksum itself"},      {70, 11, "header HMAC"},       {96, 7, "first ciphertext byte"},
        {96 + n - 1, 7, "last ciphertext byte"}, {96 + n, 7, "trailer"}, {c->size() - 1, 7, "last trailer byte"},
    };
    for (const auto& k : cases) {
        for (uint8_t bit : {0x01, 0x80}) {
            Bytes d = *c;
            d[k.offset] ^= bit;
            EXPECT_EQ(decryptCode(d, kPass), k.expected) << k.what;
        }
    }
    LogCapture log;
    Bytes d = *c;
    d[100] ^= 4;
    EXPECT_FALSE(QVCrypto::decrypt(d, kPass));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("): scryptdec_buf returned: 7"), std::string::npos) << log.lines()[0];
}

TEST(QVCryptoContainer, WrongPasswordIsElevenAndWritesNothing) {
    auto c = QVCrypto::encrypt(B("secret"), kPass);
    ASSERT_TRUE(c);
    Bytes out(c->size(), 0xEE);
    size_t outlen = 12345;
    const Bytes wrong = B("pass");
    EXPECT_EQ(scryptdec_buf(c->data(), c->size(), out.data(), &outlen, wrong.data(), wrong.size(), 0, 1.0, 10.0), 11);
    EXPECT_EQ(out, Bytes(c->size(), 0xEE));
    EXPECT_EQ(outlen, 12345u);
    LogCapture log;
    EXPECT_FALSE(QVCrypto::decryptWithString(*c, "wrong"));
    EXPECT_TRUE(log.contains("scryptdec_buf returned: 11"));
    // A damaged trailer is found before any plaintext is written either.
    Bytes d = *c;
    d.back() ^= 1;
    EXPECT_EQ(scryptdec_buf(d.data(), d.size(), out.data(), &outlen, kPass.data(), kPass.size(), 0, 1.0, 10.0), 7);
    EXPECT_EQ(out, Bytes(c->size(), 0xEE));
}

TEST(QVCryptoContainer, TruncatedForeignAndFutureBlocks) {
    auto c = QVCrypto::encrypt(B("0123456789"), kPass);
    ASSERT_TRUE(c);
    for (size_t len : {size_t{0}, size_t{5}, size_t{6}, size_t{7}, size_t{48}, size_t{127}, size_t{128},
                       c->size() - 1}) {
        EXPECT_EQ(decryptCode(Bytes(c->begin(), c->begin() + static_cast<long>(len)), kPass), 7) << len;
    }
    Bytes foreign = B("Scrypt");
    foreign.resize(200);
    EXPECT_EQ(decryptCode(foreign, kPass), 7);
    EXPECT_EQ(decryptCode(Bytes(300, 0), kPass), 7);
    // The version is read before the length is judged.
    EXPECT_EQ(decryptCode(B("scrypt\x01"), kPass), 8);
    Bytes v = *c;
    v[6] = 1;
    fixChecksum(v);
    EXPECT_EQ(decryptCode(v, kPass), 8);
    // Long garbage after a valid header moves the trailer: damage.
    Bytes longer = *c;
    longer.push_back(0);
    EXPECT_EQ(decryptCode(longer, kPass), 7);
}

TEST(QVCryptoContainer, ImplausibleParametersAreRefusedBeforeDeriving) {
    auto c = QVCrypto::encrypt(B("x"), kPass);
    ASSERT_TRUE(c);
    auto variant = [&](int logN, uint32_t r, uint32_t p) {
        Bytes d = *c;
        d[7] = static_cast<uint8_t>(logN);
        putBE32(d, 8, r);
        putBE32(d, 12, p);
        fixChecksum(d);
        return d;
    };
    EXPECT_EQ(decryptCode(variant(0, 8, 1), kPass), 7);
    EXPECT_EQ(decryptCode(variant(64, 8, 1), kPass), 7);
    EXPECT_EQ(decryptCode(variant(10, 0, 1), kPass), 7);
    EXPECT_EQ(decryptCode(variant(10, 8, 0), kPass), 7);
    EXPECT_EQ(decryptCode(variant(10, 1 << 15, 1 << 15), kPass), 7);

    // More memory than half of this machine: error 9, with its own line on stderr.
    testing::internal::CaptureStderr();
    EXPECT_EQ(decryptCode(variant(40, 8, 1), kPass), 9);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("Error 9 in scryptdec_buf! memlimit = ", 0), 0u) << err;
    EXPECT_NE(err.find(", N = 1099511627776, opslimit = "), std::string::npos) << err;
    EXPECT_NE(err.find(", r = 8, p = 1\n"), std::string::npos) << err;

    // Cheap in memory, but 2^29 times over in time: error 10.
    EXPECT_EQ(decryptCode(variant(10, 8, 1 << 26), kPass), 10);
}

TEST(QVCryptoContainer, FrozenSampleStillOpens) {
    // Made once by the scrypt file tool with logN 10, r 8, p 1.
    const Bytes sample = readFile(std::string(QV_FIXTURES_DIR) + "/container-v0.scrypt");
    ASSERT_EQ(sample.size(), 194u);
    const std::string text = "Quillvane frozen container, format version 0.\nSecond line: \xc3\xa9t\xc3\xa9.\n";
    auto plain = QVCrypto::decryptStringWithString(sample, "correct horse battery staple");
    ASSERT_TRUE(plain);
    EXPECT_EQ(*plain, text);
    EXPECT_FALSE(QVCrypto::decryptWithString(sample, "correct horse battery stapl"));

    // Given the sample's salt and parameters, our writer reproduces the tool's bytes.
    auto d = params(Bytes(sample.begin() + 16, sample.begin() + 48), sample[7], 8, 1);
    auto ours = QVCrypto::encrypt(B(text), B("correct horse battery staple"), d);
    ASSERT_TRUE(ours);
    EXPECT_EQ(*ours, sample);
}

TEST(QVCryptoStrings, StringVariantsUseUTF8Bytes) {
    const std::string pw = "p\xc3\xa4ssw\xc3\xb6rd";
    auto c = QVCrypto::encryptString("gr\xc3\xbc\xc3\x9f" "e", pw);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->size(), 7u + 128);
    EXPECT_EQ(*QVCrypto::decryptStringWithString(*c, pw), "gr\xc3\xbc\xc3\x9f" "e");
    EXPECT_EQ(*QVCrypto::decrypt(*c, B(pw)), B("gr\xc3\xbc\xc3\x9f" "e"));
    auto w = QVCrypto::encryptWithString(B("data"), pw);
    ASSERT_TRUE(w);
    EXPECT_EQ(*QVCrypto::decryptString(*w, B(pw)), "data");

    // Plaintext that is not UTF-8 is no string.
    auto raw = QVCrypto::encrypt(Bytes{'a', 0xff, 'b'}, B(pw));
    ASSERT_TRUE(raw);
    LogCapture log;
    EXPECT_FALSE(QVCrypto::decryptStringWithString(*raw, pw));
    EXPECT_TRUE(QVCrypto::decryptWithString(*raw, pw));
    auto empty = QVCrypto::encryptString("", pw);
    ASSERT_TRUE(empty);
    EXPECT_EQ(*QVCrypto::decryptStringWithString(*empty, pw), "");
}

TEST(QVCryptoRandom, ByteHelperNeverYieldsHigh) {
    EXPECT_TRUE(QVCrypto::randomDataOfLength(0, 0, 255).empty());
    Bytes three = QVCrypto::randomDataOfLength(100000, 0, 2);
    ASSERT_EQ(three.size(), 100000u);
    std::array<size_t, 256> seen{};
    for (uint8_t b : three) seen[b]++;
    EXPECT_GT(seen[0], 45000u);
    EXPECT_GT(seen[1], 45000u);
    EXPECT_EQ(seen[2], 0u);

    // The pad case: 0..254, every value, never 255, no value far off its share.
    seen = {};
    for (uint8_t b : QVCrypto::randomDataOfLength(255 * 400, 0, 255)) seen[b]++;
    EXPECT_EQ(seen[255], 0u);
    for (int v = 0; v < 255; v++) {
        EXPECT_GT(seen[v], 250u) << v;
        EXPECT_LT(seen[v], 550u) << v;
    }

    for (uint8_t b : QVCrypto::randomDataOfLength(1000, 100, 110)) {
        EXPECT_GE(b, 100);
        EXPECT_LT(b, 110);
    }
    // No range to draw from: only the low value.
    EXPECT_EQ(QVCrypto::randomDataOfLength(5, 7, 7), Bytes(5, 7));
    EXPECT_EQ(QVCrypto::randomDataOfLength(5, 9, 3), Bytes(5, 9));
}

TEST(QVCryptoRandom, StringAndPasswordHelpersIncludeBothEnds) {
    std::string s = QVCrypto::randomStringOfLength(2000, 65, 122);
    ASSERT_EQ(s.size(), 2000u);
    std::set<char> seen(s.begin(), s.end());
    EXPECT_EQ(seen.size(), 58u);
    EXPECT_EQ(*seen.begin(), 'A');
    EXPECT_EQ(*seen.rbegin(), 'z');
    // Either order of the bounds.
    for (char ch : QVCrypto::randomStringOfLength(200, 'z', 'a')) {
        EXPECT_GE(ch, 'a');
        EXPECT_LE(ch, 'z');
    }

    std::string pw = QVCrypto::randomPasswordOfLength(5000);
    ASSERT_EQ(pw.size(), 5000u);
    std::set<char> pwChars(pw.begin(), pw.end());
    EXPECT_EQ(pwChars.size(), 94u);
    EXPECT_EQ(*pwChars.begin(), '!');
    EXPECT_EQ(*pwChars.rbegin(), '~');
    EXPECT_TRUE(QVCrypto::randomPasswordOfLength(0).empty());
    EXPECT_NE(QVCrypto::randomPasswordOfLength(32), QVCrypto::randomPasswordOfLength(32));
}

TEST(QVCryptoRandom, WideCharactersAreValidUTF8AndSkipSurrogates) {
    // A range straddling the surrogates: every character comes out as one
    // well-formed code point from the range.
    std::string s = QVCrypto::randomStringOfLength(3000, 0xD7F0, 0xE00F);
    size_t i = 0, count = 0;
    std::set<uint32_t> seen;
    while (i < s.size()) {
        auto c = static_cast<uint8_t>(s[i]);
        ASSERT_EQ(c & 0xF0, 0xE0) << i;
        ASSERT_LE(i + 3, s.size());
        uint32_t u = ((c & 0x0Fu) << 12) | ((static_cast<uint8_t>(s[i + 1]) & 0x3Fu) << 6) |
                     (static_cast<uint8_t>(s[i + 2]) & 0x3Fu);
        EXPECT_TRUE((u >= 0xD7F0 && u < 0xD800) || (u > 0xDFFF && u <= 0xE00F)) << std::hex << u;
        seen.insert(u);
        i += 3;
        count++;
    }
    EXPECT_EQ(count, 3000u);
    EXPECT_EQ(seen.size(), 32u);
    EXPECT_TRUE(QVCrypto::randomStringOfLength(10, 0xDC00, 0xDC10).empty());
    // Two-byte forms.
    std::string two = QVCrypto::randomStringOfLength(100, 0xE9, 0xE9);
    EXPECT_EQ(two.size(), 200u);
    EXPECT_EQ(two.substr(0, 2), "\xc3\xa9");
}

TEST(QVCryptoRandom, IntegerHelperTakesEitherOrderAndBothEnds) {
    std::set<uint32_t> seen;
    for (int i = 0; i < 2000; i++) {
        uint32_t v = QVCrypto::randomIntegerBetween(40, 30);
        ASSERT_GE(v, 30u);
        ASSERT_LE(v, 40u);
        seen.insert(v);
        v = QVCrypto::randomIntegerBetween(30, 40);
        ASSERT_GE(v, 30u);
        ASSERT_LE(v, 40u);
    }
    EXPECT_EQ(seen.size(), 11u);
    EXPECT_EQ(QVCrypto::randomIntegerBetween(5, 5), 5u);
    // The full range is not stuck at one value.
    std::set<uint32_t> wide;
    for (int i = 0; i < 20; i++) wide.insert(QVCrypto::randomIntegerBetween(UINT32_MAX, 0));
    EXPECT_GT(wide.size(), 15u);
    uint32_t top = QVCrypto::randomIntegerBetween(UINT32_MAX - 1, UINT32_MAX);
    EXPECT_GE(top, UINT32_MAX - 1);
}

TEST(QVCryptoWipe, OverwritesInPlace) {
    Bytes b(64, 0x41);
    const uint8_t* where = b.data();
    QVWipe(b);
    EXPECT_EQ(b.size(), 64u);
    EXPECT_EQ(b.data(), where);
    EXPECT_NE(b, Bytes(64, 0x41));

    std::string s(100, 'A');
    s.resize(40);
    const char* at = s.data();
    QVWipe(s);
    EXPECT_EQ(s.size(), 40u);
    EXPECT_EQ(s.data(), at);
    EXPECT_NE(s, std::string(40, 'A'));

    uint8_t raw[32];
    std::fill(std::begin(raw), std::end(raw), 0x41);
    QVWipe(raw, sizeof raw);
    EXPECT_NE(std::count(std::begin(raw), std::end(raw), 0x41), 32);
    QVWipe(nullptr, 10);  // nothing to do, no crash
    Bytes none;
    QVWipe(none);
    EXPECT_TRUE(none.empty());
}

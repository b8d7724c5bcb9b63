// The sector cipher against published XTS-AES known answers (IEEE 1619,
// annex B), with the sector index as the data unit sequence number.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "image/BandStore.h"

using namespace qv::image;

namespace {

std::vector<uint8_t> fromHex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

struct KnownAnswer {
    Encryption encryption;
    std::string key;  // Key1 || Key2
    uint64_t index;
    std::vector<uint8_t> plain;
    std::string cipher;
};

// Vector 2 (AES-128, 32 bytes) and the first eight blocks of vector 10
// (AES-256, 512 bytes): XTS blocks without ciphertext stealing stand alone, so
// a prefix of a data unit encrypts to the prefix of its ciphertext.
std::vector<KnownAnswer> knownAnswers() {
    std::vector<uint8_t> counting(128);
    for (size_t i = 0; i < counting.size(); ++i) counting[i] = uint8_t(i);
    return {
        {Encryption::AES128, std::string(32, '1') + std::string(32, '2'), 0x3333333333ull,
         std::vector<uint8_t>(32, 0x44), "c454185e6a16936e39334038acef838bfb186fff7480adc4289382ecd6d394f0"},
        {Encryption::AES256,
         "2718281828459045235360287471352662497757247093699959574966967627"
         "3141592653589793238462643383279502884197169399375105820974944592",
         0xff, counting,
         "1c3b3a102f770386e4836c99e370cf9bea00803f5e482357a4ae12d414a3e63b"
         "5d31e276f8fe4a8d66b317f9ac683f44680a86ac35adfc3345befecb4bb188fd"
         "5776926c49a3095eb108fd1098baec70aaa66999a72a82f27d848b21d4a741b0"
         "c5cd4d5fff9dac89aeba122961d03a757123e9870f8acf1000020887891429ca"},
    };
}

void expectKnownAnswer(const XtsCipher& cipher, const KnownAnswer& k) {
    std::vector<uint8_t> out(k.plain.size());
    ASSERT_TRUE(cipher.encrypt(k.index, k.plain.data(), out.data(), out.size()));
    EXPECT_EQ(out, fromHex(k.cipher));
    // In place, as the band store decrypts.
    ASSERT_TRUE(cipher.decrypt(k.index, out.data(), out.data(), out.size()));
    EXPECT_EQ(out, k.plain);
}

} // namespace

// Each thread keeps one pair of contexts and rekeys it when another cipher
// comes along: alternating ciphers, and using them from a second thread, must
// never encrypt under the wrong key.
TEST(XtsCipherTest, MatchesPublishedVectorsWhicheverCipherAndThreadRanLast) {
    const auto answers = knownAnswers();
    std::vector<std::unique_ptr<XtsCipher>> ciphers;
    for (const auto& k : answers) ciphers.push_back(std::make_unique<XtsCipher>(k.encryption, fromHex(k.key).data()));

    for (int round = 0; round < 2; ++round)
        for (size_t i = 0; i < answers.size(); ++i) expectKnownAnswer(*ciphers[i], answers[i]);
    std::thread other([&] {
        for (size_t i = answers.size(); i-- > 0;) expectKnownAnswer(*ciphers[i], answers[i]);
    });
    other.join();
    expectKnownAnswer(*ciphers[0], answers[0]);
}

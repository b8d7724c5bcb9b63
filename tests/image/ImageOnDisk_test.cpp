// The image on disk, read independently of the program: the header files, the
// key wrapped in the token, and every sector of the bands checked against the
// decrypted disk the program serves.
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>

#include "image/ImageTestSupport.h"
#include "vault/QVCrypto.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

constexpr uint64_t kBandSize = 8ull << 20;
constexpr uint64_t kSector = 4096;

// AES-XTS decryption of one sector, the tweak being its index in little endian.
std::string decryptSector(const std::string& key, uint64_t index, const std::string& cipher) {
    unsigned char tweak[16] = {};
    for (int i = 0; i < 8; ++i) tweak[i] = (unsigned char)(index >> (8 * i));
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    std::string plain(cipher.size(), '\0');
    int len = 0;
    if (EVP_DecryptInit_ex(ctx.get(), key.size() == 64 ? EVP_aes_256_xts() : EVP_aes_128_xts(), nullptr,
                           (const unsigned char*)key.data(), tweak) != 1 ||
        EVP_DecryptUpdate(ctx.get(), (unsigned char*)plain.data(), &len, (const unsigned char*)cipher.data(),
                          int(cipher.size())) != 1)
        return {};
    return plain;
}

bool allZero(std::string_view s) { return s.find_first_not_of('\0') == std::string_view::npos; }

class ImageOnDiskTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the image tests mount file systems and need root";
    }
    ImageSandbox box;
};

TEST_F(ImageOnDiskTest, SectorsAreXtsEncryptedUnderTheKeyInTheToken) {
    const std::string password = "format-password-\xc3\xa9\x01";  // any bytes
    for (const std::string encryption : {"AES-256", "AES-128"}) {
        SCOPED_TRACE(encryption);
        const std::string image = box.path(encryption + ".sparsebundle"), mnt = box.makeDir("mnt-" + encryption);
        ASSERT_EQ(box.create(image, password, 64, "HFS+J", encryption).exitCode, 0);
        // A random key, wrapped in the project's scrypt container under the password.
        const std::string token = readFile(image + "/token");
        auto key = qv::QVCrypto::decrypt(qv::Bytes(token.begin(), token.end()),
                                         qv::Bytes(password.begin(), password.end()));
        ASSERT_TRUE(key && key->size() == (encryption == "AES-256" ? 64u : 32u)) << "the password doesn't open the token";
        const std::string xtsKey(key->begin(), key->end());
        EXPECT_NE(xtsKey.substr(0, xtsKey.size() / 2), xtsKey.substr(xtsKey.size() / 2));

        // Data including whole sectors of zeros, then the bands compared sector by sector with the disk,
        // which is journaled ext4 for HFS+J.
        ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
        writeFileSynced(mnt + "/data", patternBytes(11, 20 << 20) + std::string(1 << 20, '\0'));
        ASSERT_EQ(box.detach(mnt).exitCode, 0);
        std::string dev;
        ASSERT_EQ(box.attachNoMount(image, password, &dev).exitCode, 0);
        const std::string disk = readFile(dev);
        EXPECT_NE(runCommand({"dumpe2fs", "-h", dev}).out.find("has_journal"), std::string::npos);
        EXPECT_EQ(box.detach(dev).exitCode, 0);
        ASSERT_EQ(disk.size(), 64ull << 20) << "the served disk is not the image's size";

        size_t checked = 0, mismatched = 0, zeroSectors = 0;
        for (uint64_t band = 0; band * kBandSize < disk.size(); ++band) {
            char name[32];
            std::snprintf(name, sizeof name, "%llx", (unsigned long long)band);
            const std::string path = image + "/bands/" + name;
            const std::string stored = fs::exists(path) ? readFile(path) : "";
            ASSERT_LE(stored.size(), kBandSize);
            for (uint64_t off = 0; off < kBandSize; off += kSector) {
                const uint64_t index = (band * kBandSize + off) / kSector;
                const std::string plain = disk.substr(index * kSector, kSector);
                if (off >= stored.size() || allZero(std::string_view(stored).substr(off, kSector))) {
                    mismatched += !allZero(plain);  // never written, or stored as zeros: reads as zeros
                    ++zeroSectors;
                } else {
                    ++checked;
                    mismatched += decryptSector(xtsKey, index, stored.substr(off, kSector)) != plain;
                }
            }
        }
        EXPECT_GT(checked, 5000u) << "too few stored sectors to tell";
        EXPECT_GT(zeroSectors, 0u);
        EXPECT_EQ(mismatched, 0u) << "sectors that don't decrypt to what the disk shows";
    }
}

TEST_F(ImageOnDiskTest, HeaderFilesAndImageinfoDescribeTheImage) {
    const std::string password = "header-password", image = box.path("header.sparsebundle");
    ASSERT_EQ(box.create(image, password, 80, "HFS+", "AES-256", "Headers").exitCode, 0);
    const std::string info = readFile(image + "/Info.plist");
    EXPECT_EQ(info, readFile(image + "/Info.bckup")) << "the backup copy differs";
    auto plist = parsePropertyList(info);
    ASSERT_TRUE(plist && plist->toDict()) << info;
    auto intOf = [&](const char* key) { return dictGet(*plist, key).value_or(qv::Value()).toInt(); };
    EXPECT_TRUE(intOf("format-version") >= 1 && intOf("band-size") == int64_t(kBandSize) && intOf("size") == 80 << 20)
        << info;
    for (const auto& name : listDirectory(image + "/bands"))
        EXPECT_LT(std::stoull(name, nullptr, 16), 10u) << "band beyond the end of an 80 MiB disk: " << name;

    // What the application reads from imageinfo -plist, detached and attached.
    const std::string mnt = box.makeDir("mnt");
    for (const bool attached : {false, true}) {
        if (attached) {
            ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
        }
        CommandResult r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password);
        auto about = parsePropertyList(r.out);
        ASSERT_TRUE(r.exitCode == 0 && about && about->toDict()) << r.describe();
        auto field = [&](const char* key) { return dictGet(*about, key).value_or(qv::Value()); };
        EXPECT_TRUE(field("size").toInt() == 80 << 20 && field("band-size").toInt() == int64_t(kBandSize) &&
                    field("sector-size").toInt() == int64_t(kSector) && field("encryption").toString() == "AES-256" &&
                    field("cipher").toString() == "AES-256-XTS")
            << r.out;
        EXPECT_TRUE(field("attached").kind() == qv::Value::Kind::Bool && field("attached").toBool() == attached);
        if (!attached) {
            EXPECT_EQ(field("bands").toInt(), int64_t(listDirectory(image + "/bands").size())) << r.out;
        }
    }
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // The volume name is the file-system label; HFS+ is ext4 without a journal (HFS+J, with one, is the rest).
    std::string dev;
    ASSERT_EQ(box.attachNoMount(image, password, &dev).exitCode, 0);
    EXPECT_EQ(runCommand({"e2label", dev}).out, "Headers\n");
    EXPECT_EQ(runCommand({"dumpe2fs", "-h", dev}).out.find("has_journal"), std::string::npos);
    box.detach(dev);
}

} // namespace

// An image made by the first version of the format, frozen: a copy of it must
// keep opening and reading for ever.
TEST_F(ImageOnDiskTest, TheFrozenVersionOneSampleStillOpens) {
    const std::string image = box.path("sample.sparsebundle"), mnt = box.makeDir("mnt-sample");
    fs::copy(std::string(QV_FIXTURES_DIR) + "/image-v1.sparsebundle", image, fs::copy_options::recursive);
    const std::string password = "frozen sample password";
    EXPECT_EQ(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password).exitCode, 0);
    ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
    EXPECT_EQ(readFile(mnt + "/docs/readme.txt"), "Frozen sample of the image format, version 1.\n");
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

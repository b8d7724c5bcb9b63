// The image on disk, read independently of the program: the header files,
// the key wrapped in the token, and every sector of the bands checked against
// the decrypted disk the program serves.
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "image/ImageTestSupport.h"
#include "vault/QVCrypto.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

constexpr uint64_t kBandSize = 8ull << 20;
constexpr uint64_t kSector = 4096;

// Every integer anywhere in a property list value.
void collectIntegers(const qv::Value& v, std::vector<int64_t>* out) {
    if (v.kind() == qv::Value::Kind::Int) out->push_back(v.toInt());
    if (auto a = v.toArray())
        for (const auto& item : *a) collectIntegers(item, out);
    if (auto d = v.toDict())
        for (const auto& [k, item] : *d) collectIntegers(item, out);
}
bool holdsInteger(const qv::Value& v, int64_t n) {
    std::vector<int64_t> all;
    collectIntegers(v, &all);
    return std::find(all.begin(), all.end(), n) != all.end();
}

std::string bandName(uint64_t band) {
    std::ostringstream s;
    s << std::hex << band;
    return s.str();
}

// AES-XTS decryption of one sector, the tweak being its index in little endian.
std::string decryptSector(const std::string& key, uint64_t index, const std::string& cipher) {
    unsigned char tweak[16] = {};
    for (int i = 0; i < 8; ++i) tweak[i] = (unsigned char)(index >> (8 * i));
    const EVP_CIPHER* alg = key.size() == 64 ? EVP_aes_256_xts() : EVP_aes_128_xts();
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    std::string plain(cipher.size(), '\0');
    int len = 0;
    if (EVP_DecryptInit_ex(ctx.get(), alg, nullptr, (const unsigned char*)key.data(), tweak) != 1 ||
        EVP_DecryptUpdate(ctx.get(), (unsigned char*)plain.data(), &len, (const unsigned char*)cipher.data(),
                          int(cipher.size())) != 1)
        return {};
    return plain;
}

bool allZero(const char* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i]) return false;
    return true;
}

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
        const std::string image = box.path(encryption + ".sparsebundle");
        CommandResult r = box.create(image, password, 64, "HFS+J", encryption, "Format");
        ASSERT_EQ(r.exitCode, 0) << r.describe();

        // The random key, wrapped in the project's scrypt container under the password.
        const std::string tokenBytes = readFile(image + "/token");
        auto key = qv::QVCrypto::decrypt(qv::Bytes(tokenBytes.begin(), tokenBytes.end()),
                                         qv::Bytes(password.begin(), password.end()));
        ASSERT_TRUE(key) << "the token is not a container that the password opens";
        ASSERT_EQ(key->size(), encryption == "AES-256" ? 64u : 32u);
        const std::string xtsKey(key->begin(), key->end());
        EXPECT_NE(xtsKey.substr(0, xtsKey.size() / 2), xtsKey.substr(xtsKey.size() / 2));

        // Put data in, including whole sectors of zeros, then compare sector by sector.
        const std::string mnt = box.makeDir("mnt-" + encryption);
        ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
        writeFileSynced(mnt + "/data", patternBytes(11, 20 << 20) + std::string(1 << 20, '\0'));
        ASSERT_EQ(box.detach(mnt).exitCode, 0);

        std::string dev;
        r = box.attachNoMount(image, password, &dev);
        ASSERT_EQ(r.exitCode, 0) << r.describe();
        ASSERT_FALSE(dev.empty()) << r.out;
        const std::string disk = readFile(dev);
        EXPECT_EQ(box.detach(dev).exitCode, 0);
        ASSERT_EQ(disk.size(), 64ull << 20) << "the served disk is not the image's size";

        size_t checked = 0, mismatched = 0, zeroSectors = 0;
        for (uint64_t band = 0; band * kBandSize < disk.size(); ++band) {
            const std::string path = image + "/bands/" + bandName(band);
            std::string stored;
            if (fs::exists(path)) stored = readFile(path);
            ASSERT_LE(stored.size(), kBandSize);
            for (uint64_t off = 0; off < kBandSize; off += kSector) {
                const uint64_t index = band * (kBandSize / kSector) + off / kSector;
                const char* plain = disk.data() + index * kSector;
                if (off >= stored.size() || allZero(stored.data() + off, kSector)) {
                    // Never written, or stored as zeros: reads as zeros.
                    if (!allZero(plain, kSector)) ++mismatched;
                    ++zeroSectors;
                    continue;
                }
                ++checked;
                if (decryptSector(xtsKey, index, stored.substr(off, kSector)) != std::string(plain, kSector))
                    ++mismatched;
            }
        }
        EXPECT_GT(checked, 5000u) << "too few stored sectors to tell";
        EXPECT_GT(zeroSectors, 0u);
        EXPECT_EQ(mismatched, 0u) << "sectors that don't decrypt to what the disk shows";
    }
}

TEST_F(ImageOnDiskTest, HeaderFilesDescribeTheImage) {
    const std::string password = "header-password";
    const std::string image = box.path("header.sparsebundle");
    ASSERT_EQ(box.create(image, password, 80, "HFS+", "AES-256", "Headers").exitCode, 0);

    const std::string info = readFile(image + "/Info.plist");
    EXPECT_EQ(info, readFile(image + "/Info.bckup")) << "the backup copy differs";
    auto plist = parsePropertyList(info);
    ASSERT_TRUE(plist && plist->toDict()) << info;
    EXPECT_TRUE(holdsInteger(*plist, int64_t(kBandSize))) << "no band size of 8 MiB in " << info;
    EXPECT_TRUE(holdsInteger(*plist, int64_t(80) << 20)) << "no size in bytes in " << info;
    EXPECT_NE(info.find("ersion"), std::string::npos) << "no format version in " << info;
    for (const auto& name : listDirectory(image + "/bands")) {
        EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos) << name;
        EXPECT_LT(std::stoull(name, nullptr, 16), 10u) << "band beyond the end of an 80 MiB disk";
    }

    CommandResult r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password);
    ASSERT_EQ(r.exitCode, 0) << r.describe();
    auto about = parsePropertyList(r.out);
    ASSERT_TRUE(about && about->toDict()) << "imageinfo -plist printed no property list: " << r.out;
    auto field = [&](const char* key) { return dictGet(*about, key).value_or(qv::Value()); };
    EXPECT_GE(field("format-version").toInt(), 1) << r.out;
    EXPECT_EQ(field("size").toInt(), int64_t(80) << 20) << r.out;
    EXPECT_EQ(field("band-size").toInt(), int64_t(kBandSize)) << r.out;
    EXPECT_EQ(field("sector-size").toInt(), int64_t(kSector)) << r.out;
    EXPECT_EQ(field("encryption").toString(), "AES-256") << r.out;
    EXPECT_EQ(field("cipher").toString(), "AES-256-XTS") << r.out;
    EXPECT_EQ(field("bands").toInt(), int64_t(listDirectory(image + "/bands").size())) << r.out;
    EXPECT_EQ(field("attached").kind(), qv::Value::Kind::Bool) << r.out;
    EXPECT_FALSE(field("attached").toBool());
    const std::string mnt = box.makeDir("mnt");
    ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
    r = box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password);
    EXPECT_EQ(r.exitCode, 0) << r.describe();
    about = parsePropertyList(r.out);
    ASSERT_TRUE(about);
    EXPECT_TRUE(field("attached").toBool()) << r.out;
    ASSERT_EQ(box.detach(mnt).exitCode, 0);

    // The volume name is the file-system label; HFS+ is ext4 without a journal,
    // HFS+J with one.
    const std::string journaled = box.path("journaled.sparsebundle");
    ASSERT_EQ(box.create(journaled, password, 64, "HFS+J", "AES-256", "My Files").exitCode, 0);
    for (const auto& [img, label, journal] :
         {std::tuple{image, std::string("Headers"), false}, std::tuple{journaled, std::string("My Files"), true}}) {
        std::string dev;
        r = box.attachNoMount(img, password, &dev);
        ASSERT_EQ(r.exitCode, 0) << r.describe();
        CommandResult l = runCommand({"e2label", dev});
        EXPECT_EQ(l.out, label + "\n") << l.describe();
        CommandResult h = runCommand({"dumpe2fs", "-h", dev});
        EXPECT_EQ(h.out.find("has_journal") != std::string::npos, journal) << img;
        box.detach(dev);
    }
}

TEST_F(ImageOnDiskTest, FilesOfOthersInTheBundleAreLeftAlone) {
    const std::string password = "others-password";
    const std::string image = box.path("others.sparsebundle");
    ASSERT_EQ(box.create(image, password, 64).exitCode, 0);
    // The application keeps its own record in the bundle.
    const std::string diskinfo = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>\n";
    { std::ofstream(image + "/diskinfo") << diskinfo; }
    const auto before = fs::last_write_time(image + "/diskinfo");

    const std::string mnt = box.makeDir("mnt");
    ASSERT_EQ(box.attach(image, mnt, password).exitCode, 0);
    writeFileSynced(mnt + "/f", "x");
    ASSERT_EQ(box.detach(mnt).exitCode, 0);
    EXPECT_EQ(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password).exitCode, 0);
    EXPECT_EQ(box.qvImage({"compact", "-stdinpass", image}, password).exitCode, 0);
    EXPECT_EQ(box.qvImage({"resize", "-stdinpass", "-size", "72m", image}, password).exitCode, 0);
    EXPECT_EQ(readFile(image + "/diskinfo"), diskinfo);
    EXPECT_EQ(fs::last_write_time(image + "/diskinfo"), before);

    // create -ov replaces the image: the old password and contents are gone.
    ASSERT_EQ(box.create(image, "new-password", 64).exitCode, 0);
    EXPECT_EQ(box.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, password).exitCode, 3);
    ASSERT_EQ(box.attach(image, mnt, "new-password").exitCode, 0);
    EXPECT_FALSE(fs::exists(mnt + "/f")) << "create -ov kept the old contents";
    EXPECT_EQ(box.detach(mnt).exitCode, 0);
}

} // namespace

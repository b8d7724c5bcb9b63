#include "FuzzHarnesses.h"

#include <openssl/sha.h>
#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "image/ImageBundle.h"
#include "vault/KeyedArchive.h"
#include "vault/PropertyList.h"
#include "vault/QVCrypto.h"

namespace qv::fuzz {

namespace {

// A fuzzer can't forge SHA-256: inputs get a valid header checksum (the first 16
// bytes of SHA-256 over bytes 0..47, at 48) so that they reach what lies behind it.
Bytes withHeaderChecksum(const uint8_t* data, size_t size) {
    Bytes out(data, data + size);
    if (out.size() >= 64) {
        uint8_t hash[SHA256_DIGEST_LENGTH];
        SHA256(out.data(), 48, hash);
        std::memcpy(out.data() + 48, hash, 16);
    }
    return out;
}

// scrypt parameters cheap enough to derive on every input (a few milliseconds).
bool cheapParameters(const Bytes& container) {
    if (container.size() < 16) return false;
    const uint32_t r = (uint32_t{container[8]} << 24) | (uint32_t{container[9]} << 16) |
                       (uint32_t{container[10]} << 8) | container[11];
    const uint32_t p = (uint32_t{container[12]} << 24) | (uint32_t{container[13]} << 16) |
                       (uint32_t{container[14]} << 8) | container[15];
    return container[7] <= 10 && r <= 8 && p <= 2;
}

void decryptContainer(const Bytes& container) {
    static const std::string password = "correct horse battery staple";
    Bytes out(container.size());
    size_t length = 0;
    // Limits far below a real decryption's, so that the fuzzer meets the refusals
    // of costly parameters (errors 9 and 10) rather than waiting for them.
    const int rc =
        scryptdec_buf(container.data(), container.size(), out.data(), &length,
                      reinterpret_cast<const uint8_t*>(password.data()), password.size(), 4u << 20, 0.5, 0.05);
    if (rc == 0 && length + 128 != container.size()) std::abort();
}

// The tree of a binary property list, as XML text. libplist merges equal data
// nodes of a binary list only when their addresses happen to hash alike, so two
// archives of the same objects may differ in bytes while holding the same tree.
std::string archiveTree(const Bytes& archive) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(archive.data()), static_cast<uint32_t>(archive.size()), &root);
    if (!root) std::abort();  // what the writer made must parse
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    plist_free(root);
    std::string out(xml ? xml : "", length);
    free(xml);
    return out;
}

} // namespace

int keyedArchive(const uint8_t* data, size_t size) {
    auto root = unarchiveObjectWithData(Bytes(data, data + size), nullptr);
    if (!root) return 0;
    (void)root->description();
    // What was read can be written, and writing it again after reading it back
    // gives the same archive: the master file survives being opened and saved.
    QVError error;
    auto written = archivedDataWithRootObject(*root, &error);
    if (!written) return 0;
    auto again = unarchiveObjectWithData(*written, &error);
    if (!again) std::abort();
    auto rewritten = archivedDataWithRootObject(*again, &error);
    if (!rewritten || archiveTree(*rewritten) != archiveTree(*written)) std::abort();
    return 0;
}

int propertyList(const uint8_t* data, size_t size) {
    const Bytes bytes(data, data + size);
    if (auto value = QVPropertyListFromData(bytes, nullptr)) {
        (void)value->description();
        // Settings and records are written back as XML, and read again.
        if (auto xml = QVPropertyListToXML(*value))
            if (!QVPropertyListFromXMLData(*xml, nullptr)) std::abort();
    }
    std::string why;
    if (!image::parseInfoPlist(bytes, &why) && why.empty()) std::abort();
    return 0;
}

int scryptContainer(const uint8_t* data, size_t size) {
    decryptContainer(Bytes(data, data + size));
    const Bytes fixed = withHeaderChecksum(data, size);
    if (cheapParameters(fixed)) decryptContainer(fixed);
    return 0;
}

int imageToken(const uint8_t* data, size_t size) {
    for (const Bytes& token : {Bytes(data, data + size), withHeaderChecksum(data, size)}) {
        for (auto encryption : {image::Encryption::AES128, image::Encryption::AES256}) {
            if (!image::tokenLooksValid(token, encryption) || !cheapParameters(token)) continue;
            static const char password[] = "frozen sample password";
            image::SecureBytes pw;
            pw.assign(reinterpret_cast<const uint8_t*>(password), sizeof password - 1);
            image::SecureBytes key;
            QVError error;
            if (image::unwrapDiskKey(token, encryption, pw, &key, &error)) {
                if (key.size() != image::xtsKeyLength(encryption)) std::abort();
            } else if (error.code != QVImageExitWrongPassword && error.code != QVImageExitNotAnImage) {
                std::abort();
            }
        }
    }
    return 0;
}

} // namespace qv::fuzz

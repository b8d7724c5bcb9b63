// An image's description: Info.plist as written and read, what makes it
// unusable, and the fall-back to its copy Info.bckup when it is.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "image/ImageBundle.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/LogCapture.h"
#include "vault/PropertyList.h"

using namespace qv;
using namespace qv::image;
namespace fs = std::filesystem;

namespace {

const std::string kFixture = std::string(QV_FIXTURES_DIR) + "/image-v1.sparsebundle";

Bytes readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Info.plist with one key changed (or removed, for a null value).
Bytes infoWith(const std::string& key, const Value& value) {
    DictRef dict =
        QVPropertyListFromData(infoPlistBytes(ImageInfo{1, 64ull << 20, Encryption::AES256}), nullptr)->toDict();
    auto copy = std::make_shared<Dict>(*dict);
    if (value.isNull())
        copy->erase(DictKey(key));
    else
        (*copy)[DictKey(key)] = value;
    return *QVPropertyListToXML(Value(copy));
}

std::string whyRefused(const Bytes& bytes) {
    std::string why;
    EXPECT_FALSE(parseInfoPlist(bytes, &why));
    return why;
}

// The same description as a binary property list.
Bytes binaryInfo() {
    plist_t root = nullptr;
    const Bytes xml = readBytes(kFixture + "/Info.plist");
    plist_from_xml(reinterpret_cast<const char*>(xml.data()), uint32_t(xml.size()), &root);
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    Bytes out(bin, bin + length);
    plist_to_bin_free(bin);
    plist_free(root);
    return out;
}

// A copy of the frozen image without its bands: opening reads only the header files.
std::string copyOfFixture(const std::string& dir) {
    const std::string image = dir + "/copy.sparsebundle";
    fs::create_directories(image + "/bands");
    for (const char* name : {"Info.plist", "Info.bckup", "token"})
        fs::copy_file(kFixture + "/" + name, image + "/" + name);
    return image;
}

} // namespace

TEST(InfoPlist, WrittenDescriptionsReadBackAndTheFrozenOneStillReads) {
    for (const ImageInfo& info :
         {ImageInfo{1, 16ull << 20, Encryption::AES128}, ImageInfo{1, kMaxDeclaredSize, Encryption::AES256}}) {
        std::string why;
        auto back = parseInfoPlist(infoPlistBytes(info), &why);
        ASSERT_TRUE(back) << why;
        EXPECT_EQ(back->size, info.size);
        EXPECT_EQ(back->encryption, info.encryption);
        EXPECT_EQ(back->formatVersion, 1);
    }
    std::string why;
    auto frozen = parseInfoPlist(readBytes(kFixture + "/Info.plist"), &why);
    ASSERT_TRUE(frozen) << why;
    EXPECT_EQ(frozen->size, 16ull << 20);
    EXPECT_EQ(frozen->encryption, Encryption::AES256);
}

TEST(InfoPlist, DescriptionsThatDontFitThisProgramAreRefusedWithTheReason) {
    EXPECT_EQ(whyRefused({}), "empty");
    EXPECT_NE(whyRefused(infoWith("format-version", Value(2))).find("format version 2"), std::string::npos);
    EXPECT_EQ(whyRefused(infoWith("format-version", Value())), "no format version");
    for (const Value& size : {Value(0), Value(-4096), Value(4097),
                              Value(static_cast<long long>(kMaxDeclaredSize + 4096)), Value("64m"), Value()})
        EXPECT_EQ(whyRefused(infoWith("size", size)), "bad size") << size.description();
    EXPECT_EQ(whyRefused(infoWith("band-size", Value(1 << 20))), "bad band size");
    EXPECT_EQ(whyRefused(infoWith("sector-size", Value(512))), "bad sector size");
    EXPECT_EQ(whyRefused(infoWith("encryption", Value("AES-512"))), "unknown encryption");
    EXPECT_EQ(whyRefused(infoWith("encryption", Value())), "unknown encryption");
    const Bytes array = *QVPropertyListToXML(Value::newArray({Value(1)}));
    EXPECT_EQ(whyRefused(array), "not a dictionary");

    // Info.plist is XML: the same description in binary is refused before it is parsed.
    EXPECT_NE(whyRefused(binaryInfo()).find("binary"), std::string::npos);
    std::string deep = "<plist version=\"1.0\">";
    for (int i = 0; i < 1000; ++i) deep += "<array>";
    EXPECT_NE(whyRefused(Bytes(deep.begin(), deep.end())).find("nested too deeply"), std::string::npos);
}

TEST(InfoPlist, AnUnusableInfoPlistFallsBackToItsCopy) {
    const std::string dir = test::makeTempDir("qv-infoplist");
    const std::string image = copyOfFixture(dir);
    const Bytes garbage = {'n', 'o', 't', ' ', 'a', ' ', 'p', 'l', 'i', 's', 't'};
    // Damage, a newer format, a binary list, nothing at all: each is made up for by Info.bckup.
    for (const auto& [what, bytes] :
         std::vector<std::pair<std::string, std::optional<Bytes>>>{{"garbage", garbage},
                                                                   {"newer", infoWith("format-version", Value(2))},
                                                                   {"binary", binaryInfo()},
                                                                   {"missing", std::nullopt}}) {
        fs::remove(image + "/Info.plist");
        if (bytes) ASSERT_TRUE(QVWriteFileAtomically(image + "/Info.plist", *bytes, nullptr));
        test::LogCapture log;
        ImageBundle bundle;
        QVError error;
        ASSERT_TRUE(bundle.open(image, &error)) << what << ": " << error.description;
        EXPECT_EQ(bundle.info().size, 16ull << 20) << what;
        EXPECT_TRUE(log.has("using Info.bckup")) << what;
    }

    // With both copies unusable the image is not an image, and the error says why for each.
    ASSERT_TRUE(QVWriteFileAtomically(image + "/Info.plist", binaryInfo(), nullptr));
    ASSERT_TRUE(QVWriteFileAtomically(image + "/Info.bckup", garbage, nullptr));
    ImageBundle bundle;
    QVError error;
    EXPECT_FALSE(bundle.open(image, &error));
    EXPECT_EQ(error.domain, kImageErrorDomain);
    EXPECT_EQ(error.code, QVImageExitNotAnImage);
    EXPECT_NE(error.description.find("Info.plist not an XML property list: a binary"), std::string::npos)
        << error.description;
    EXPECT_NE(error.description.find("Info.bckup not an XML property list"), std::string::npos) << error.description;

    // A good Info.plist is taken without a look at its copy.
    fs::copy_file(kFixture + "/Info.plist", image + "/Info.plist", fs::copy_options::overwrite_existing);
    test::LogCapture log;
    EXPECT_TRUE(bundle.open(image, &error)) << error.description;
    EXPECT_FALSE(log.has("Info.bckup"));
    fs::remove_all(dir);
}

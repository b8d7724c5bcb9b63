// The guard in front of libplist: what we write and keep passes, the hostile
// shapes (deep nesting, shared sub-trees, size, markup that hides a level) are
// refused with a reason, and nothing makes it or the parser behind it crash.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "disk/DiskInfoFile.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"
#include "vault/PropertyList.h"
#include "vault/PropertyListGuard.h"
#include "vault/RawPropertyList.h"

using namespace qv;

namespace {

Bytes bytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes fixture(const std::string& name) {
    std::ifstream in(std::string(QV_FIXTURES_DIR) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string problem(const Bytes& b, QVPropertyListFormat format = QVPropertyListFormat::Any) {
    return QVPropertyListProblem(b.data(), b.size(), format, QVPlainPropertyListLimits);
}

// What the plain reader makes of it: empty when read, else the error.
std::string readError(const Bytes& b) {
    QVError error;
    auto value = QVPropertyListFromData(b, &error);
    if (value) return {};
    EXPECT_EQ(error.code, QVErrorFailed);
    return error.description.empty() ? "?" : error.description;
}

std::string xmlPlist(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n" +
           body + "\n</plist>\n";
}

// `levels` arrays, each inside the one before, `extra` between each pair.
std::string nested(size_t levels, const std::string& extra = "") {
    std::string s;
    for (size_t i = 0; i < levels; ++i) s += "<array>" + extra;
    s += "<string>bottom</string>";
    for (size_t i = 0; i < levels; ++i) s += "</array>";
    return xmlPlist(s);
}

} // namespace

TEST(PropertyListGuard, PassesWhatWeWriteAndKeep) {
    for (const char* name : {"image-v1.sparsebundle/Info.plist", "diskinfo-v1.sparsebundle/diskinfo"}) {
        EXPECT_EQ(problem(fixture(name), QVPropertyListFormat::XML), "") << name;
        EXPECT_EQ(readError(fixture(name)), "") << name;
    }
    EXPECT_EQ(problem(fixture("keyed-archive-v1.plist"), QVPropertyListFormat::Binary), "");
    EXPECT_EQ(problem(fixture("database3-v2"), QVPropertyListFormat::Binary), "");
    std::ifstream defaults(QV_SOURCE_DIR "/resources/QuillvaneDefaults.plist", std::ios::binary);
    EXPECT_EQ(readError(Bytes(std::istreambuf_iterator<char>(defaults), std::istreambuf_iterator<char>())), "");

    // Our own writer's output with every kind of value; comments and CDATA that
    // hold markup.
    const Value sample =
        Value::newDict({{"s", Value("a <b> & \"c\"")},
                        {"n", Value::newArray({Value(1), Value(2.5), Value(true), Value::newDict({})})},
                        {"d", Value(Bytes{0, 1, 2})},
                        {"t", Value::date(1700000000)}});
    EXPECT_EQ(readError(*QVPropertyListToXML(sample)), "");
    EXPECT_EQ(readError(bytesOf(xmlPlist("<!-- a <dict> in a comment --><dict><key>k</key>"
                                         "<string><![CDATA[</string> <array>]]><!-- </dict> --></string></dict>"))),
              "");
}

TEST(PropertyListGuard, RefusesDeepNestingInEitherFormat) {
    const size_t limit = QVPlainPropertyListLimits.maxDepth;
    EXPECT_EQ(readError(bytesOf(nested(limit))), "") << "as deep as allowed";
    EXPECT_NE(readError(bytesOf(nested(limit + 1))).find("nested too deeply"), std::string::npos);
    // Deep enough to overflow the stack of a recursive parser or of libplist's free.
    EXPECT_NE(readError(bytesOf(nested(200000))).find("nested too deeply"), std::string::npos);
    EXPECT_NE(readError(test::rawDeepBplist()).find("nested too deeply"), std::string::npos);

    // Levels hidden from a naive count: closing tags in comments, CDATA and
    // attributes close nothing, so each level still counts.
    EXPECT_NE(problem(bytesOf(nested(limit + 1, "<!-- </array> -->"))).find("nested too deeply"), std::string::npos);
    EXPECT_NE(problem(bytesOf(nested(limit + 1, "<string><![CDATA[</array>]]></string>"))).find("nested too deeply"),
              std::string::npos);
    EXPECT_NE(problem(bytesOf(xmlPlist("<array a=\"</array>\"><array></array></array>"))), "");
    // Markup whose reading could differ between the guard and the parser is refused.
    EXPECT_NE(problem(bytesOf("<!DOCTYPE plist [<!ENTITY e \"<array>\">]>" + xmlPlist("<string>&e;</string>"))), "");
    EXPECT_NE(problem(bytesOf(xmlPlist("<array></dict>"))), "");
    EXPECT_NE(problem(bytesOf(xmlPlist("<string>a<b/></string>"))), "");
    EXPECT_NE(problem(bytesOf(xmlPlist("<array>"))), "");
}

TEST(PropertyListGuard, RefusesSharedSubTreesThatExplode) {
    // A few KiB that libplist would expand to 10^12 nodes.
    const Bytes bomb = test::rawWideBplist();
    EXPECT_LT(bomb.size(), 20000u);
    EXPECT_NE(readError(bomb).find("expands too much"), std::string::npos);
    EXPECT_NE(problem(bomb, QVPropertyListFormat::Binary).find("expands too much"), std::string::npos);
}

TEST(PropertyListGuard, RefusesOversizedInput) {
    // A well-formed list, only too big: a string of 5 MiB.
    const Bytes big = bytesOf(xmlPlist("<string>" + std::string(5u << 20, 'x') + "</string>"));
    EXPECT_NE(readError(big).find("too large"), std::string::npos);

    // diskinfo is refused before it is read whole.
    const std::string dir = test::makeTempDir("qv-guard");
    ASSERT_TRUE(QVWriteFileAtomically(dir + "/" + QVDiskInfoFileName, big, nullptr));
    QVError error;
    EXPECT_FALSE(QVDiskInfoRead(dir, &error));
    EXPECT_EQ(error.code, EFBIG) << error.description;
    std::filesystem::remove_all(dir);
}

TEST(PropertyListGuard, XMLOnlyReadersRefuseBinaryLists) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "format-version", plist_new_uint(1));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bin, &length);
    const Bytes binary(bin, bin + length);
    plist_to_bin_free(bin);
    plist_free(dict);
    EXPECT_EQ(readError(binary), "") << "the plain reader takes both";
    QVError error;
    EXPECT_FALSE(QVPropertyListFromXMLData(binary, &error));
    EXPECT_NE(error.description.find("binary"), std::string::npos) << error.description;
    EXPECT_TRUE(QVPropertyListFromXMLData(fixture("image-v1.sparsebundle/Info.plist"), nullptr));
    EXPECT_NE(problem(fixture("image-v1.sparsebundle/Info.plist"), QVPropertyListFormat::Binary), "");
}

// Truncations and byte flips of an XML list: a refusal or a value, never a crash
// (this runs under the sanitizers too).
TEST(PropertyListGuard, MangledXMLNeverCrashes) {
    // A NUL in a string made libplist abort (found by the fuzzer).
    EXPECT_NE(problem(bytesOf(xmlPlist(std::string("<string>a\0b</string>", 20)))).find("NUL"), std::string::npos);
    const Bytes good = fixture("diskinfo-v1.sparsebundle/diskinfo");
    for (size_t len = 0; len < good.size(); ++len) readError(Bytes(good.begin(), good.begin() + len));
    std::mt19937 rng(20240917);
    const char markup[] = "<>/!?[]-\"' \n";
    for (int round = 0; round < 4000; ++round) {
        Bytes bytes = good;
        for (int f = 0, flips = 1 + int(rng() % 4); f < flips; ++f)
            bytes[rng() % bytes.size()] = round % 2 ? uint8_t(markup[rng() % (sizeof markup - 1)]) : uint8_t(rng());
        readError(bytes);
    }
}

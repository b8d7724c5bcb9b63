#include <gtest/gtest.h>
#include <plist/plist.h>

#include <limits>
#include <random>

#include "support/RunProcess.h"
#include "vault/KeyedArchive.h"
#include "vault/RawPropertyList.h"

using namespace qv;

namespace {

// An archivable test class with an integer and an object field.
class Pin : public Object {
public:
    int64_t x = 0;
    Value next;
    std::string className() const override { return "QVTestPin"; }
    bool encodeWithCoder(KeyedEncoder& c) const override {
        c.encodeInt(x, "x");
        c.encodeValue(next, "$next");  // a field name that looks like the archive's own keys
        return true;
    }
};
const bool pinRegistered = QVRegisterArchivableClass("QVTestPin", [](KeyedDecoder& c) -> ObjectRef {
    auto pin = std::make_shared<Pin>();
    pin->x = c.decodeInt("x");
    pin->next = c.decodeValue("$next");
    return pin;
});

class Unregistered : public Object {
    std::string className() const override { return "QVTestUnregistered"; }
    bool encodeWithCoder(KeyedEncoder&) const override { return true; }
};

Value roundTrip(const Value& v) {
    QVError error;
    auto data = archivedDataWithRootObject(v, &error);
    auto back = data ? unarchiveObjectWithData(*data, &error) : std::nullopt;
    EXPECT_TRUE(back) << error.description;
    return back ? *back : Value();
}

// A refusal: no result, error 1001 of our domain, whose description has `words`.
void expectRefused(bool produced, const QVError& error, const std::string& words) {
    EXPECT_FALSE(produced) << words;
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_NE(error.description.find(words), std::string::npos) << error.description;
}
void expectRefusedWrite(const Value& v, const std::string& words) {
    QVError error;
    expectRefused(archivedDataWithRootObject(v, &error).has_value(), error, words);
}
void expectRefusedRead(const Bytes& bytes, const std::string& words) {
    QVError error;
    expectRefused(unarchiveObjectWithData(bytes, &error).has_value(), error, words);
}

// Hand-made archives, for what our writer never produces.
plist_t dict(std::initializer_list<std::pair<const char*, plist_t>> items) {
    plist_t d = plist_new_dict();
    for (const auto& [key, node] : items) plist_dict_set_item(d, key, node);
    return d;
}
plist_t list(std::initializer_list<plist_t> items) {
    plist_t a = plist_new_array();
    for (plist_t i : items) plist_array_append_item(a, i);
    return a;
}
plist_t uid(uint64_t r) { return plist_new_uid(r); }
plist_t str(const char* s) { return plist_new_string(s); }
plist_t cls(const char* name) { return dict({{"$classname", str(name)}, {"$classes", list({str(name), str("NSObject")})}}); }
Bytes toBin(plist_t node) {
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(node, &bin, &len);
    Bytes out(bin, bin + len);
    plist_to_bin_free(bin);
    plist_free(node);
    return out;
}
// $objects = ["$null", objects...], root UID 1 unless told.
Bytes archive(std::vector<plist_t> objects, uint64_t root = 1, const char* archiver = "NSKeyedArchiver",
              uint64_t version = 100000) {
    plist_t all = list({str("$null")});
    for (plist_t o : objects) plist_array_append_item(all, o);
    return toBin(dict({{"$archiver", str(archiver)}, {"$version", plist_new_uint(version)},
                       {"$top", dict({{"root", uid(root)}})}, {"$objects", all}}));
}

Value sampleGraph() {
    auto shared = Value::newArray({Value("one"), Value(2)});
    auto pin = std::make_shared<Pin>();
    pin->x = -7;
    pin->next = shared;
    return Value::newDict({{"name", Value("Zoë 😀")}, {"bytes", Value(Bytes{0, 1, 2, 255})},
                           {"where", Value::url("/home/user/My Docs/ü?#%")}, {"when", Value::date(1700000000.5)},
                           {"list", shared}, {"again", shared}, {"pin", Value(pin)},
                           {DictKey(Bytes{0xde, 0xad}), Value(true)}});
}

} // namespace

TEST(KeyedArchive, RoundTripsEveryKindOfValue) {
    ASSERT_TRUE(pinRegistered);
    Value original = Value::newDict({{"unicode", Value("Zoë – 日本 😀")},
                                     {"min", Value(std::numeric_limits<int64_t>::min())},
                                     {"max", Value(std::numeric_limits<int64_t>::max())},
                                     {"half", Value(0.5)}, {"false", Value(false)}, {"empty data", Value(Bytes{})},
                                     {"url", Value::url("/tmp/a b/ü/100%/x?y#z;q")}, {"date", Value::date(-1e6)},
                                     {"array", Value::newArray({Value(1), Value(), Value::newArray()})},
                                     {DictKey(Bytes{0, 1, 2}), Value("data key")},
                                     {"$dollar", Value("a key that looks like the archive's own")}});
    Value back = roundTrip(original);
    ASSERT_TRUE(back.equals(original, true)) << back.description();
    // Value equality takes 1 for 1.0 and true; the kinds must survive as well.
    EXPECT_EQ(QVDictGet(*back.toDict(), "false").kind(), Value::Kind::Bool);
    EXPECT_EQ(QVDictGet(*back.toDict(), "date").kind(), Value::Kind::Date);
    EXPECT_TRUE(roundTrip(Value()).isNull()) << "a null root is a result, not a failure";
}

TEST(KeyedArchive, SharedObjectsStaySharedAndDistinctOnesDistinct) {
    Value back = roundTrip(sampleGraph());
    ASSERT_EQ(back.kind(), Value::Kind::Dict);
    ArrayRef list = QVDictGet(*back.toDict(), "list").toArray();
    auto pin = QVDictGet(*back.toDict(), "pin").as<Pin>();
    ASSERT_TRUE(list && pin);
    EXPECT_EQ(QVDictGet(*back.toDict(), "again").toArray(), list);
    EXPECT_EQ(pin->next.toArray(), list);
    EXPECT_EQ(pin->x, -7);

    Value twins = roundTrip(Value::newArray({Value::newArray({Value(1)}), Value::newArray({Value(1)})}));
    EXPECT_NE(twins.toArray()->at(0).toArray(), twins.toArray()->at(1).toArray());
    // A weak reference is archived as its object while that lives, as null after.
    auto target = std::make_shared<Pin>();
    Value weak = Value::weak(target);
    EXPECT_TRUE(roundTrip(Value::newArray({weak})).toArray()->at(0).as<Pin>());
    target.reset();
    EXPECT_TRUE(roundTrip(Value::newArray({weak})).toArray()->at(0).isNull());
}

TEST(KeyedArchive, WritingRefusesWhatCouldNotBeReadBack) {
    expectRefusedWrite(Value(std::make_shared<Unregistered>()), "QVTestUnregistered");
    expectRefusedWrite(Value(std::string("bad \xff utf8")), "UTF-8");
    expectRefusedWrite(Value::url("relative/path"), "absolute");

    Value loop = Value::newArray();
    loop.toArray()->push_back(Value::newDict({{"back", loop}}));
    expectRefusedWrite(loop, "cycle");
    loop.toArray()->clear();
    // What the reader accepts is writable; one level more is not.
    auto nest = [](int levels) {
        Value v("leaf");
        for (int i = 0; i < levels; ++i) v = Value::newArray({v});
        return v;
    };
    Value deep = roundTrip(nest(QVKeyedArchiveMaxDepth));
    for (int i = 0; i < QVKeyedArchiveMaxDepth; ++i) deep = deep.toArray()->at(0);
    EXPECT_EQ(deep.toString(), "leaf");
    expectRefusedWrite(nest(QVKeyedArchiveMaxDepth + 1), "deep");
}

TEST(KeyedArchive, HostileArchivesAreRefusedWithAnError) {
    auto array = [](std::initializer_list<uint64_t> refs) {
        plist_t objects = list({});
        for (auto r : refs) plist_array_append_item(objects, uid(r));
        return dict({{"NS.objects", objects}, {"$class", uid(2)}});
    };
    expectRefusedRead(Bytes(100, 'x'), "binary property list");
    expectRefusedRead(archive({str("x")}, 1, "SomethingElse"), "archiver");
    expectRefusedRead(archive({str("x")}, 1, "NSKeyedArchiver", 200000), "version 200000");
    expectRefusedRead(archive({str("x")}, 5), "out of range");
    expectRefusedRead(archive({array({3}), cls("NSArray"), array({1})}), "cycle");
    expectRefusedRead(archive({array({}), cls("NoSuchClass")}), "unknown class 'NoSuchClass'");
    expectRefusedRead(archive({dict({{"NS.base", uid(0)}, {"NS.relative", uid(3)}, {"$class", uid(2)}}), cls("NSURL"),
                               str("https://example.com/")}),
                      "not a file URL");
    expectRefusedRead(archive({dict({{"x", str("1")}, {"$class", uid(2)}}), cls("QVTestPin")}), "not an integer");

    // A chain of arrays far deeper than anything we write: refused, no stack overflow.
    std::vector<plist_t> chain = {array({3}), cls("NSArray")};
    for (uint64_t i = 3; i < 20000; ++i) chain.push_back(array({i + 1}));
    chain.push_back(str("bottom"));
    expectRefusedRead(archive(chain), "too deeply");

    // Property lists refused before parsing: 100000 nested arrays would overflow a
    // recursive parser's stack.
    expectRefusedRead(test::rawDeepBplist(), "nested too deeply");
    // Four arrays of 1000 references to the next: 10^12 nodes once expanded.
    expectRefusedRead(test::rawWideBplist(), "expands too much");
}

// Truncations and byte flips of a valid archive: anything but a crash, a hang or
// a result without an error is a bug. Runs under the sanitizers too.
TEST(KeyedArchive, MangledArchivesNeverCrash) {
    const Bytes good = *archivedDataWithRootObject(sampleGraph());
    size_t refused = 0;
    auto attempt = [&](const Bytes& bytes) {
        QVError error;
        auto v = unarchiveObjectWithData(bytes, &error);
        v ? (void)v->description() : (void)++refused;
        EXPECT_TRUE(v || error.code == QVErrorFailed);
    };
    for (size_t len = 0; len < good.size(); ++len) attempt(Bytes(good.begin(), good.begin() + len));
    std::mt19937 rng(20240611);
    for (int round = 0; round < 6000; ++round) {
        Bytes bytes = good;
        for (int f = 0, flips = 1 + int(rng() % 4); f < flips; ++f) {
            size_t at = rng() % bytes.size();
            bytes[at] = round % 3 ? uint8_t(bytes[at] ^ (1u << (rng() % 8))) : uint8_t(rng());
        }
        attempt(bytes);
    }
    EXPECT_GT(refused, good.size());
}

TEST(KeyedArchive, PythonPlistlibReadsOurArchives) {
    const Bytes data = *archivedDataWithRootObject(sampleGraph());
    auto r = test::runProcess({"/usr/bin/python3", QV_SOURCE_DIR "/tests/support/keyed_archive_keys.py", "/dev/stdin"},
                              std::string(data.begin(), data.end()));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "NSMutableDictionary\n0xdead\nagain\nbytes\nlist\nname\npin\n"
                     "when 721692800.5\nwhere file:///home/user/My%20Docs/%C3%BC%3F%23%25\n");
}

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <random>

#include "vault/KeyedArchive.h"

using namespace qv;

namespace {

// An archivable test class: a labelled point that may point to another object.
class Pin : public Object {
public:
    std::string label;
    int64_t x = 0;
    double weight = 0;
    bool pinned = false;
    Value next;
    std::string className() const override { return "QVTestPin"; }
    bool encodeWithCoder(KeyedEncoder& coder) const override {
        coder.encodeValue(Value(label), "label");
        coder.encodeInt(x, "x");
        coder.encodeDouble(weight, "weight");
        coder.encodeBool(pinned, "pinned");
        coder.encodeValue(next, "next");
        coder.encodeValue(Value("dollar"), "$escaped");
        return true;
    }
};

const bool pinRegistered = QVRegisterArchivableClass(
    "QVTestPin",
    [](KeyedDecoder& coder) -> ObjectRef {
        auto pin = std::make_shared<Pin>();
        pin->label = coder.decodeValue("label").toString();
        pin->x = coder.decodeInt("x");
        pin->weight = coder.decodeDouble("weight");
        pin->pinned = coder.decodeBool("pinned");
        pin->next = coder.decodeValue("next");
        if (coder.decodeValue("$escaped").toString() != "dollar") coder.fail("escaped key lost");
        return pin;
    },
    {"QVTestBase"});

class Unregistered : public Object {
public:
    std::string className() const override { return "QVTestUnregistered"; }
    bool encodeWithCoder(KeyedEncoder&) const override { return true; }
};

class Refusing : public Object {
public:
    std::string className() const override { return "QVTestRefusing"; }
};
const bool refusingRegistered =
    QVRegisterArchivableClass("QVTestRefusing", [](KeyedDecoder&) { return std::make_shared<Refusing>(); });

Value roundTrip(const Value& v) {
    QVError error;
    auto data = archivedDataWithRootObject(v, &error);
    EXPECT_TRUE(data) << error.description;
    if (!data) return {};
    auto back = unarchiveObjectWithData(*data, &error);
    EXPECT_TRUE(back) << error.description;
    return back ? *back : Value();
}

void expectRefusedWrite(const Value& v, const std::string& words) {
    QVError error;
    EXPECT_FALSE(archivedDataWithRootObject(v, &error));
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_NE(error.description.find(words), std::string::npos) << error.description;
}

// Reading must fail cleanly: no value, error 1001 with a description.
void expectRefusedRead(const Bytes& data, const std::string& words = "") {
    QVError error;
    auto v = unarchiveObjectWithData(data, &error);
    EXPECT_FALSE(v);
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_NE(error.description.find(words), std::string::npos) << error.description;
}

Bytes toBin(plist_t node) {
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(node, &bin, &len);
    Bytes out(bin, bin + len);
    plist_to_bin_free(bin);
    plist_free(node);
    return out;
}

// A keyed archive assembled by hand from `objects` (the "$null" entry is added first).
Bytes handArchive(std::vector<plist_t> objects, uint64_t root = 1, const char* archiver = "NSKeyedArchiver",
                  uint64_t version = 100000) {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "$archiver", plist_new_string(archiver));
    plist_dict_set_item(top, "$version", plist_new_uint(version));
    plist_t t = plist_new_dict();
    plist_dict_set_item(t, "root", plist_new_uid(root));
    plist_dict_set_item(top, "$top", t);
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_string("$null"));
    for (plist_t o : objects) plist_array_append_item(list, o);
    plist_dict_set_item(top, "$objects", list);
    return toBin(top);
}

plist_t classEntry(const char* name) {
    plist_t c = plist_new_dict();
    plist_dict_set_item(c, "$classname", plist_new_string(name));
    plist_t list = plist_new_array();
    plist_array_append_item(list, plist_new_string(name));
    plist_array_append_item(list, plist_new_string("NSObject"));
    plist_dict_set_item(c, "$classes", list);
    return c;
}

plist_t arrayEntry(std::vector<uint64_t> refs, uint64_t classUID) {
    plist_t d = plist_new_dict();
    plist_t list = plist_new_array();
    for (auto r : refs) plist_array_append_item(list, plist_new_uid(r));
    plist_dict_set_item(d, "NS.objects", list);
    plist_dict_set_item(d, "$class", plist_new_uid(classUID));
    return d;
}

// A raw binary property list: `objects` are encoded objects (markers and bytes),
// refs and offsets 4 bytes wide.
Bytes rawBplist(const std::vector<Bytes>& objects, uint64_t root = 0) {
    Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint32_t> offsets;
    for (const auto& o : objects) {
        offsets.push_back(uint32_t(out.size()));
        out.insert(out.end(), o.begin(), o.end());
    }
    uint64_t table = out.size();
    auto put = [&](uint64_t v, int n) {
        for (int i = n - 1; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
    };
    for (auto off : offsets) put(off, 4);
    for (int i = 0; i < 6; ++i) out.push_back(0);
    out.push_back(4);
    out.push_back(4);
    put(objects.size(), 8);
    put(root, 8);
    put(table, 8);
    return out;
}

Bytes rawArray(const std::vector<uint32_t>& refs) {
    Bytes o;
    if (refs.size() < 15) {
        o.push_back(uint8_t(0xA0 | refs.size()));
    } else {
        o = {0xAF, 0x12};
        for (int i = 3; i >= 0; --i) o.push_back(uint8_t(refs.size() >> (8 * i)));
    }
    for (auto r : refs)
        for (int i = 3; i >= 0; --i) o.push_back(uint8_t(r >> (8 * i)));
    return o;
}

Value sampleGraph() {
    auto shared = Value::newArray({Value("one"), Value(2)});
    auto pin = std::make_shared<Pin>();
    pin->label = "pin";
    pin->x = -7;
    pin->weight = 0.25;
    pin->pinned = true;
    pin->next = shared;
    Dict d;
    d["name"] = Value("Zoë 😀");
    d["int"] = Value(-42);
    d["real"] = Value(3.5);
    d["flag"] = Value(true);
    d["bytes"] = Value(Bytes{0, 1, 2, 255});
    d["where"] = Value::url("/home/user/My Docs/ü?#%");
    d["when"] = Value::date(1700000000.5);
    d["list"] = shared;
    d["again"] = shared;
    d["pin"] = Value(pin);
    d[DictKey(Bytes{0xde, 0xad})] = Value(Bytes{1});
    return Value::newDict(std::move(d));
}

} // namespace

TEST(KeyedArchive, RoundTripsEveryKindOfValue) {
    ASSERT_TRUE(pinRegistered);
    Dict d;
    d["string"] = Value("plain");
    d["unicode"] = Value("Zoë – 日本 😀");
    d["empty string"] = Value("");
    d["zero"] = Value(0);
    d["min"] = Value(std::numeric_limits<int64_t>::min());
    d["max"] = Value(std::numeric_limits<int64_t>::max());
    d["negative"] = Value(-1);
    d["real"] = Value(0.1);
    d["float-exact"] = Value(0.5);
    d["huge"] = Value(1e300);
    d["true"] = Value(true);
    d["false"] = Value(false);
    d["data"] = Value(Bytes{0, 0, 7, 0xff});
    d["empty data"] = Value(Bytes{});
    d["url"] = Value::url("/tmp/a b/ü/100%/x?y#z;q");
    d["root url"] = Value::url("/");
    d["date"] = Value::date(1234567890.25);
    d["old date"] = Value::date(-1e6);
    d["array"] = Value::newArray({Value(1), Value(), Value("x"), Value::newArray()});
    d["empty dict"] = Value::newDict();
    d[DictKey(Bytes{0, 1, 2})] = Value("data key");
    d["$dollar"] = Value("a key that looks like the archive's own");
    Value original = Value::newDict(d);

    Value back = roundTrip(original);
    ASSERT_EQ(back.kind(), Value::Kind::Dict);
    EXPECT_TRUE(back.equals(original, true)) << back.description();
    const Dict& b = *back.toDict();
    // Equality treats 1 and 1.0 alike; the kinds must survive too.
    EXPECT_EQ(QVDictGet(b, "true").kind(), Value::Kind::Bool);
    EXPECT_EQ(QVDictGet(b, "zero").kind(), Value::Kind::Int);
    EXPECT_EQ(QVDictGet(b, "float-exact").kind(), Value::Kind::Real);
    EXPECT_EQ(QVDictGet(b, "min").toInt(), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(QVDictGet(b, "url").toURLPath(), "/tmp/a b/ü/100%/x?y#z;q");
    EXPECT_EQ(QVDictGet(b, "date").kind(), Value::Kind::Date);
    EXPECT_DOUBLE_EQ(QVDictGet(b, "date").toDate(), 1234567890.25);
    EXPECT_TRUE(QVDictGet(b, "array").toArray()->at(1).isNull());
    EXPECT_EQ(QVDictGet(b, Bytes{0, 1, 2}).toString(), "data key");

    // Scalars alone as the root, and a null root, which is no failure.
    EXPECT_EQ(roundTrip(Value("alone")).toString(), "alone");
    EXPECT_EQ(roundTrip(Value(5)).toInt(), 5);
    QVError error;
    auto data = archivedDataWithRootObject(Value(), &error);
    ASSERT_TRUE(data);
    auto nothing = unarchiveObjectWithData(*data, &error);
    ASSERT_TRUE(nothing);
    EXPECT_TRUE(nothing->isNull());
    EXPECT_TRUE(error.empty());
}

TEST(KeyedArchive, SharedObjectsStaySharedAndDistinctOnesDistinct) {
    Value graph = sampleGraph();
    Value back = roundTrip(graph);
    ASSERT_EQ(back.kind(), Value::Kind::Dict);
    const Dict& b = *back.toDict();
    ArrayRef list = QVDictGet(b, "list").toArray(), again = QVDictGet(b, "again").toArray();
    ASSERT_TRUE(list && again);
    EXPECT_EQ(list, again);
    auto pin = QVDictGet(b, "pin").as<Pin>();
    ASSERT_TRUE(pin);
    EXPECT_EQ(pin->next.toArray(), list);
    list->push_back(Value("added"));
    EXPECT_EQ(again->size(), 3u);

    // Equal content is not identity: two equal arrays come back as two arrays.
    Value twins = Value::newArray({Value::newArray({Value(1)}), Value::newArray({Value(1)})});
    Value t = roundTrip(twins);
    EXPECT_NE(t.toArray()->at(0).toArray(), t.toArray()->at(1).toArray());

    // The shared array is one entry of $objects.
    auto data = archivedDataWithRootObject(graph);
    ASSERT_TRUE(data);
    plist_t p = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data->data()), data->size(), &p);
    ASSERT_TRUE(p);
    plist_t objects = plist_dict_get_item(p, "$objects");
    int arrays = 0;
    for (uint32_t i = 0; i < plist_array_get_size(objects); ++i) {
        plist_t o = plist_array_get_item(objects, i);
        if (plist_get_node_type(o) == PLIST_DICT && plist_dict_get_item(o, "NS.objects") &&
            !plist_dict_get_item(o, "NS.keys"))
            ++arrays;
    }
    EXPECT_EQ(arrays, 1);
    plist_free(p);
}

TEST(KeyedArchive, LayoutIsTheKeyedArchiveOne) {
    Dict d;
    d["u"] = Value::url("/a b/ü");
    d["d"] = Value::date(978307200.0 + 10.5);
    auto data = archivedDataWithRootObject(Value::newDict(d));
    ASSERT_TRUE(data);
    ASSERT_GE(data->size(), 8u);
    EXPECT_EQ(std::string(data->begin(), data->begin() + 8), "bplist00");
    plist_t p = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data->data()), data->size(), &p);
    ASSERT_TRUE(p);
    EXPECT_EQ(plist_string_val_compare(plist_dict_get_item(p, "$archiver"), "NSKeyedArchiver"), 0);
    EXPECT_EQ(plist_uint_val_compare(plist_dict_get_item(p, "$version"), 100000), 0);
    plist_t objects = plist_dict_get_item(p, "$objects");
    EXPECT_EQ(plist_string_val_compare(plist_array_get_item(objects, 0), "$null"), 0);
    plist_t rootRef = plist_dict_get_item(plist_dict_get_item(p, "$top"), "root");
    ASSERT_EQ(plist_get_node_type(rootRef), PLIST_UID);
    uint64_t rootIndex = 0;
    plist_get_uid_val(rootRef, &rootIndex);
    EXPECT_EQ(rootIndex, 1u);

    auto deref = [&](plist_t uid) {
        uint64_t i = 0;
        plist_get_uid_val(uid, &i);
        return plist_array_get_item(objects, uint32_t(i));
    };
    auto classList = [&](plist_t object) {
        plist_t cls = deref(plist_dict_get_item(object, "$class"));
        std::vector<std::string> names;
        plist_t list = plist_dict_get_item(cls, "$classes");
        for (uint32_t i = 0; i < plist_array_get_size(list); ++i) {
            char* s = nullptr;
            plist_get_string_val(plist_array_get_item(list, i), &s);
            names.push_back(s);
            free(s);
        }
        return names;
    };
    plist_t root = plist_array_get_item(objects, 1);
    EXPECT_EQ(classList(root), (std::vector<std::string>{"NSMutableDictionary", "NSDictionary", "NSObject"}));
    plist_t keys = plist_dict_get_item(root, "NS.keys");
    plist_t values = plist_dict_get_item(root, "NS.objects");
    ASSERT_EQ(plist_array_get_size(keys), 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        char* k = nullptr;
        plist_get_string_val(deref(plist_array_get_item(keys, i)), &k);
        plist_t value = deref(plist_array_get_item(values, i));
        if (std::string(k) == "u") {
            EXPECT_EQ(classList(value), (std::vector<std::string>{"NSURL", "NSObject"}));
            EXPECT_EQ(plist_uid_val_compare(plist_dict_get_item(value, "NS.base"), 0), 0);
            EXPECT_EQ(plist_string_val_compare(deref(plist_dict_get_item(value, "NS.relative")),
                                               "file:///a%20b/%C3%BC"),
                      0);
        } else {
            EXPECT_EQ(classList(value), (std::vector<std::string>{"NSDate", "NSObject"}));
            EXPECT_EQ(plist_real_val_compare(plist_dict_get_item(value, "NS.time"), 10.5), 0);
        }
        free(k);
    }
    plist_free(p);
}

TEST(KeyedArchive, RegisteredObjectsRoundTripAndOthersAreRefused) {
    auto inner = std::make_shared<Pin>();
    inner->label = "inner";
    auto outer = std::make_shared<Pin>();
    outer->label = "outer";
    outer->x = std::numeric_limits<int64_t>::max();
    outer->weight = -2.75;
    outer->next = Value(inner);
    Value back = roundTrip(Value::newArray({Value(outer), Value(inner)}));
    ASSERT_EQ(back.kind(), Value::Kind::Array);
    auto o = back.toArray()->at(0).as<Pin>();
    auto i = back.toArray()->at(1).as<Pin>();
    ASSERT_TRUE(o && i);
    EXPECT_EQ(o->label, "outer");
    EXPECT_EQ(o->x, std::numeric_limits<int64_t>::max());
    EXPECT_EQ(o->weight, -2.75);
    EXPECT_EQ(o->next.as<Pin>(), i);
    EXPECT_TRUE(QVIsArchivableClassRegistered("QVTestPin"));

    // A weak reference is archived as the object while it lives, as null after.
    auto target = std::make_shared<Pin>();
    target->label = "weakly held";
    Value weak = Value::weak(target);
    EXPECT_EQ(roundTrip(Value::newArray({weak})).toArray()->at(0).as<Pin>()->label, "weakly held");
    target.reset();
    EXPECT_TRUE(roundTrip(Value::newArray({weak})).toArray()->at(0).isNull());

    expectRefusedWrite(Value(std::make_shared<Unregistered>()), "QVTestUnregistered");
    expectRefusedWrite(Value::newArray({Value(std::make_shared<Refusing>())}), "refused");
    EXPECT_FALSE(QVRegisterArchivableClass("NSURL", [](KeyedDecoder&) { return ObjectRef(); }));
    EXPECT_FALSE(QVRegisterArchivableClass("", [](KeyedDecoder&) { return ObjectRef(); }));
}

TEST(KeyedArchive, WritingRefusesWhatCouldNotBeReadBack) {
    expectRefusedWrite(Value(std::string("bad \xff utf8")), "UTF-8");
    expectRefusedWrite(Value(std::string("nul\0inside", 10)), "NUL");
    expectRefusedWrite(Value::url("relative/path"), "absolute");
    expectRefusedWrite(Value::url(""), "absolute");
    Dict badKey;
    badKey[DictKey(std::string("\xc0\x80"))] = Value(1);
    expectRefusedWrite(Value::newDict(badKey), "UTF-8");

    // A container inside itself.
    Value loop = Value::newArray();
    loop.toArray()->push_back(Value::newDict({{"back", loop}}));
    expectRefusedWrite(loop, "cycle");
    loop.toArray()->clear();

    // Nesting: what the reader accepts is writable, one level more is not.
    auto nest = [](int levels) {
        Value v = Value("leaf");
        for (int i = 0; i < levels; ++i) v = Value::newArray({v});
        return v;
    };
    Value deep = roundTrip(nest(QVKeyedArchiveMaxDepth));
    for (int i = 0; i < QVKeyedArchiveMaxDepth; ++i) deep = deep.toArray()->at(0);
    EXPECT_EQ(deep.toString(), "leaf");
    expectRefusedWrite(nest(QVKeyedArchiveMaxDepth + 1), "deep");
}

TEST(KeyedArchive, FileURLStrings) {
    EXPECT_EQ(QVFileURLStringFromPath("/"), "file:///");
    EXPECT_EQ(QVFileURLStringFromPath("/a b/ü;%?#[]"), "file:///a%20b/%C3%BC%3B%25%3F%23%5B%5D");
    EXPECT_EQ(QVFileURLStringFromPath("/keep-._~!$&'()*+,=:@"), "file:///keep-._~!$&'()*+,=:@");
    EXPECT_EQ(QVPathFromFileURLString("file:///a%20b/%c3%bc"), "/a b/ü");
    EXPECT_EQ(QVPathFromFileURLString("FILE://localhost/x"), "/x");
    const char* bad[] = {"http:///x", "file://host/x", "file:relative", "file:///a%2", "file:///a%zz",
                         "file:///a%00b", "file:///a?b", "file:///a#b", "file://", ""};
    for (const char* u : bad) EXPECT_FALSE(QVPathFromFileURLString(u)) << u;
    // Every byte but NUL survives the trip.
    std::string all = "/";
    for (int c = 1; c < 256; ++c) all += char(c);
    EXPECT_EQ(QVPathFromFileURLString(QVFileURLStringFromPath(all)), all);
}

TEST(KeyedArchive, HostileArchivesAreRefusedWithAnError) {
    expectRefusedRead({}, "too short");
    expectRefusedRead(Bytes(100, 'x'), "binary property list");
    // An XML property list is not what we write, even if it holds a keyed archive.
    {
        auto data = archivedDataWithRootObject(Value("x"));
        plist_t p = nullptr;
        plist_from_bin(reinterpret_cast<const char*>(data->data()), data->size(), &p);
        char* xml = nullptr;
        uint32_t len = 0;
        plist_to_xml(p, &xml, &len);
        expectRefusedRead(Bytes(xml, xml + len), "binary");
        plist_to_xml_free(xml);
        plist_free(p);
    }
    expectRefusedRead(toBin(plist_new_array()), "not a dictionary");

    const uint64_t arrayClass = 2;  // index of the NSArray class entry in the hand-made archives below
    auto withClass = [](std::vector<plist_t> rest) {
        std::vector<plist_t> objects;
        objects.push_back(rest.front());
        objects.push_back(classEntry("NSMutableArray"));
        for (size_t i = 1; i < rest.size(); ++i) objects.push_back(rest[i]);
        return objects;
    };
    // Sanity: the hand-made form is readable.
    {
        QVError error;
        auto v = unarchiveObjectWithData(handArchive(withClass({arrayEntry({3}, arrayClass), plist_new_string("ok")})),
                                         &error);
        ASSERT_TRUE(v) << error.description;
        EXPECT_EQ(v->toArray()->at(0).toString(), "ok");
    }
    expectRefusedRead(handArchive({plist_new_string("x")}, 1, "SomethingElse"), "archiver");
    expectRefusedRead(handArchive({plist_new_string("x")}, 1, "NSKeyedArchiver", 200000), "version 200000");
    expectRefusedRead(handArchive({plist_new_string("x")}, 5), "out of range");
    expectRefusedRead(handArchive(withClass({arrayEntry({99}, arrayClass)})), "out of range");
    expectRefusedRead(handArchive(withClass({arrayEntry({1}, arrayClass)})), "cycle");
    expectRefusedRead(handArchive(withClass({arrayEntry({3}, arrayClass), arrayEntry({1}, arrayClass)})), "cycle");
    expectRefusedRead(handArchive({arrayEntry({}, 7)}), "class");
    expectRefusedRead(handArchive({arrayEntry({}, 1)}), "class without a name");
    expectRefusedRead(handArchive({arrayEntry({}, 2), classEntry("NoSuchClass")}), "unknown class 'NoSuchClass'");
    expectRefusedRead(handArchive({plist_new_uid(1)}), "type");
    {
        plist_t d = plist_new_dict();
        plist_dict_set_item(d, "NS.objects", plist_new_string("not a list"));
        plist_dict_set_item(d, "$class", plist_new_uid(arrayClass));
        expectRefusedRead(handArchive(withClass({d})), "not a list");
    }
    {
        plist_t d = plist_new_dict();
        plist_t items = plist_new_array();
        plist_array_append_item(items, plist_new_uint(3));
        plist_dict_set_item(d, "NS.objects", items);
        plist_dict_set_item(d, "$class", plist_new_uid(arrayClass));
        expectRefusedRead(handArchive(withClass({d})), "not a reference");
    }
    {
        // Dictionaries: keys and values must pair up; keys must be strings or data.
        plist_t d = plist_new_dict();
        plist_t keys = plist_new_array(), values = plist_new_array();
        plist_array_append_item(keys, plist_new_uid(3));
        plist_dict_set_item(d, "NS.keys", keys);
        plist_dict_set_item(d, "NS.objects", values);
        plist_dict_set_item(d, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({d, classEntry("NSDictionary"), plist_new_string("k")}), "keys than values");
        plist_t e = plist_new_dict();
        plist_t k2 = plist_new_array(), v2 = plist_new_array();
        plist_array_append_item(k2, plist_new_uid(3));
        plist_array_append_item(v2, plist_new_uid(3));
        plist_dict_set_item(e, "NS.keys", k2);
        plist_dict_set_item(e, "NS.objects", v2);
        plist_dict_set_item(e, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({e, classEntry("NSDictionary"), plist_new_uint(4)}), "neither a string");
    }
    {
        // A URL that is not a file URL, and one relative to a base.
        plist_t u = plist_new_dict();
        plist_dict_set_item(u, "NS.base", plist_new_uid(0));
        plist_dict_set_item(u, "NS.relative", plist_new_uid(3));
        plist_dict_set_item(u, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({u, classEntry("NSURL"), plist_new_string("https://example.com/")}),
                          "not a file URL");
        plist_t r = plist_new_dict();
        plist_dict_set_item(r, "NS.base", plist_new_uid(3));
        plist_dict_set_item(r, "NS.relative", plist_new_uid(3));
        plist_dict_set_item(r, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({r, classEntry("NSURL"), plist_new_string("file:///x")}), "relative");
    }
    {
        // Registered objects with fields of the wrong type.
        plist_t o = plist_new_dict();
        plist_dict_set_item(o, "x", plist_new_string("not a number"));
        plist_dict_set_item(o, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({o, classEntry("QVTestPin")}), "not an integer");
        plist_t q = plist_new_dict();
        plist_dict_set_item(q, "label", plist_new_uint(1));
        plist_dict_set_item(q, "$class", plist_new_uid(2));
        expectRefusedRead(handArchive({q, classEntry("QVTestPin")}), "not a reference");
    }
    // A chain of arrays deeper than any archive we write: refused, not a stack overflow.
    {
        std::vector<plist_t> objects = {arrayEntry({3}, arrayClass), classEntry("NSMutableArray")};
        const uint64_t n = 20000;
        for (uint64_t i = 3; i < n; ++i) objects.push_back(arrayEntry({i + 1}, arrayClass));
        objects.push_back(plist_new_string("bottom"));
        expectRefusedRead(handArchive(objects), "too deeply");
    }
}

TEST(KeyedArchive, HostilePropertyListsAreRefusedBeforeParsing) {
    // 100000 arrays nested inside each other: a recursive parser would overflow its stack.
    {
        std::vector<Bytes> objects;
        const uint32_t n = 100000;
        for (uint32_t i = 0; i + 1 < n; ++i) objects.push_back(rawArray({i + 1}));
        objects.push_back(rawArray({}));
        expectRefusedRead(rawBplist(objects), "nested too deeply");
    }
    // Four arrays of 1000 references each to the next: 10^12 nodes once expanded.
    {
        std::vector<Bytes> objects;
        for (uint32_t i = 0; i < 4; ++i) objects.push_back(rawArray(std::vector<uint32_t>(1000, i + 1)));
        objects.push_back(rawArray({}));
        expectRefusedRead(rawBplist(objects), "expands too much");
    }
    expectRefusedRead(rawBplist({rawArray({0})}), "cycle");
    expectRefusedRead(rawBplist({rawArray({5})}), "out of range");
    expectRefusedRead(rawBplist({rawArray({})}, 3), "root object out of range");
    expectRefusedRead(rawBplist({Bytes{0x00}}), "marker");        // null objects are not used
    expectRefusedRead(rawBplist({Bytes{0x5F, 0x10, 0xFF}}), "past its end");  // string longer than the file
    expectRefusedRead(rawBplist({Bytes{0x13, 1, 2}}), "integer");
    {
        // A dictionary whose key is a number.
        Bytes dict = {0xD1, 0, 0, 0, 1, 0, 0, 0, 1};
        expectRefusedRead(rawBplist({dict, Bytes{0x10, 0x05}}), "key is not a string");
    }
}

// Truncations and byte flips of a valid archive: any outcome but a crash, a hang
// or a value without an error is a bug. Run under the sanitizers.
TEST(KeyedArchive, MangledArchivesNeverCrash) {
    auto data = archivedDataWithRootObject(sampleGraph());
    ASSERT_TRUE(data);
    const Bytes& good = *data;
    size_t accepted = 0, refused = 0;
    auto attempt = [&](const Bytes& bytes) {
        QVError error;
        auto v = unarchiveObjectWithData(bytes, &error);
        if (v) {
            ++accepted;
            (void)v->description();  // whatever came back can be walked
        } else {
            ++refused;
            EXPECT_EQ(error.code, QVErrorFailed);
            EXPECT_FALSE(error.description.empty());
        }
    };
    for (size_t len = 0; len < good.size(); ++len) attempt(Bytes(good.begin(), good.begin() + len));
    std::mt19937 rng(20240611);
    for (int round = 0; round < 6000; ++round) {
        Bytes bytes = good;
        int flips = 1 + int(rng() % 4);
        for (int f = 0; f < flips; ++f) {
            size_t at = rng() % bytes.size();
            bytes[at] = (round % 3 == 0) ? uint8_t(rng()) : uint8_t(bytes[at] ^ (1u << (rng() % 8)));
        }
        attempt(bytes);
    }
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(accepted + refused, good.size() + 6000);
}

TEST(KeyedArchive, PythonPlistlibReadsOurArchives) {
    if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
    auto data = archivedDataWithRootObject(sampleGraph());
    ASSERT_TRUE(data);
    char dir[] = "/tmp/qv-keyed-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    std::string file = std::string(dir) + "/archive.plist";
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(data->data()), data->size());
    std::string command = "python3 '" QV_SOURCE_DIR "/tests/support/keyed_archive_keys.py' '" + file + "' 2>&1";
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_TRUE(pipe);
    char buffer[256];
    while (fgets(buffer, sizeof buffer, pipe)) output += buffer;
    int status = pclose(pipe);
    std::remove(file.c_str());
    rmdir(dir);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output, "NSMutableDictionary\n0xdead\nagain\nbytes\nflag\nint\nlist\nname\npin\nreal\nwhen\nwhere\n");
}

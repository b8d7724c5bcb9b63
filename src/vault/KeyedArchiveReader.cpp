#include <plist/plist.h>

#include <cstdint>
#include <limits>
#include <unordered_map>

#include "toolkit/Log.h"
#include "vault/FileURL.h"
#include "vault/KeyedArchive.h"
#include "vault/KeyedArchiveSupport.h"
#include "vault/PropertyListGuard.h"

namespace qv {

namespace detail {

// Rebuilds the object graph from the parsed "$objects", each entry once, so that
// objects shared in the archive come back shared.
class ArchiveReader {
public:
    explicit ArchiveReader(plist_t objects) : objects_(objects), count_(plist_array_get_size(objects)) {
        state_.assign(count_, 0);
        cache_.resize(count_);
    }

    void fail(const std::string& why) {
        if (failure_.empty()) failure_ = why;
    }
    bool failed() const { return !failure_.empty(); }
    const std::string& failure() const { return failure_; }

    // The value that a UID node refers to.
    Value decodeReference(plist_t node, const char* what) {
        if (failed()) return {};
        if (!node || plist_get_node_type(node) != PLIST_UID) {
            fail(std::string(what) + " is not a reference");
            return {};
        }
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return decodeIndex(uid);
    }

    Value decodeIndex(uint64_t index) {
        if (failed() || index == 0) return {};
        if (index >= count_) {
            fail(QVFormat("reference %llu out of range", static_cast<unsigned long long>(index)));
            return {};
        }
        if (state_[index] == 2) return cache_[index];
        if (state_[index] == 1) {
            fail(QVFormat("reference cycle through object %llu", static_cast<unsigned long long>(index)));
            return {};
        }
        if (depth_ > QVKeyedArchiveMaxDepth) { // leaves count as a level here, not when writing
            fail("objects nested too deeply");
            return {};
        }
        state_[index] = 1;
        ++depth_;
        Value value = decodeNode(index);
        --depth_;
        if (failed()) return {};
        state_[index] = 2;
        cache_[index] = value;
        return value;
    }

private:
    static plist_t member(plist_t dict, const char* key) {
        return plist_get_node_type(dict) == PLIST_DICT ? plist_dict_get_item(dict, key) : nullptr;
    }

    std::string objectName(uint64_t index) const {
        return QVFormat("object %llu", static_cast<unsigned long long>(index));
    }

    Value decodeNode(uint64_t index) {
        plist_t node = plist_array_get_item(objects_, static_cast<uint32_t>(index));
        switch (plist_get_node_type(node)) {
        case PLIST_STRING:
            return readString(node, objectName(index));
        case PLIST_DICT:
            return decodeInstance(index, node);
        default:
            if (auto scalar = QVPlistScalarValue(node)) return *scalar;
            fail(objectName(index) + " has a type that no object has");
            return {};
        }
    }

    Value readString(plist_t node, const std::string& what) {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        std::string text = s ? s : "";
        free(s);
        if (!isValidUTF8(text)) {
            fail(what + " is not UTF-8");
            return {};
        }
        return Value(std::move(text));
    }

    // The class of an instance: the "$classname" of the entry its "$class" names.
    std::optional<std::string> classNameOf(uint64_t index, plist_t node) {
        plist_t ref = member(node, "$class");
        if (!ref || plist_get_node_type(ref) != PLIST_UID) {
            fail(objectName(index) + " has no class");
            return std::nullopt;
        }
        uint64_t classIndex = 0;
        plist_get_uid_val(ref, &classIndex);
        auto cached = classNames_.find(classIndex);
        if (cached != classNames_.end()) return cached->second;
        if (classIndex == 0 || classIndex >= count_) {
            fail(objectName(index) + " has a class reference out of range");
            return std::nullopt;
        }
        plist_t cls = plist_array_get_item(objects_, static_cast<uint32_t>(classIndex));
        plist_t name = member(cls, "$classname");
        if (!name || plist_get_node_type(name) != PLIST_STRING) {
            fail(objectName(index) + " has a class without a name");
            return std::nullopt;
        }
        if (plist_t classes = member(cls, "$classes")) {
            bool ok = plist_get_node_type(classes) == PLIST_ARRAY;
            for (uint32_t i = 0; ok && i < plist_array_get_size(classes); ++i)
                ok = plist_get_node_type(plist_array_get_item(classes, i)) == PLIST_STRING;
            if (!ok) {
                fail(objectName(index) + " has a class with a bad list of classes");
                return std::nullopt;
            }
        }
        Value text = readString(name, "a class name");
        if (failed()) return std::nullopt;
        classNames_[classIndex] = text.toString();
        return text.toString();
    }

    // An array of UID references; `what` names it in errors.
    bool readReferences(plist_t list, const std::string& what, Array& out) {
        if (!list || plist_get_node_type(list) != PLIST_ARRAY) {
            fail(what + " is missing or not a list");
            return false;
        }
        uint32_t n = plist_array_get_size(list);
        out.reserve(n);
        for (uint32_t i = 0; i < n && !failed(); ++i)
            out.push_back(decodeReference(plist_array_get_item(list, i), what.c_str()));
        return !failed();
    }

    Value decodeInstance(uint64_t index, plist_t node) {
        auto name = classNameOf(index, node);
        if (!name) return {};
        const std::string& cls = *name;
        if (cls == "NSMutableDictionary" || cls == "NSDictionary") {
            Array keys, values;
            if (!readReferences(member(node, "NS.keys"), "the keys of " + objectName(index), keys) ||
                !readReferences(member(node, "NS.objects"), "the values of " + objectName(index), values))
                return {};
            if (keys.size() != values.size()) {
                fail(objectName(index) + " has more keys than values or fewer");
                return {};
            }
            auto dict = std::make_shared<Dict>();
            for (size_t i = 0; i < keys.size(); ++i) {
                DictKey key;
                if (keys[i].isString())
                    key = DictKey(keys[i].toString());
                else if (keys[i].isData())
                    key = DictKey(keys[i].toData());
                else {
                    fail(objectName(index) + " has a key that is neither a string nor data");
                    return {};
                }
                (*dict)[key] = values[i];
            }
            return Value(dict);
        }
        if (cls == "NSMutableArray" || cls == "NSArray") {
            auto array = std::make_shared<Array>();
            if (!readReferences(member(node, "NS.objects"), "the items of " + objectName(index), *array)) return {};
            return Value(array);
        }
        if (cls == "NSURL") {
            plist_t base = member(node, "NS.base");
            if (base) {
                Value b = decodeReference(base, "the base of a URL");
                if (failed()) return {};
                if (!b.isNull()) {
                    fail(objectName(index) + " is a URL relative to another");
                    return {};
                }
            }
            Value relative = decodeReference(member(node, "NS.relative"), "the text of a URL");
            if (failed()) return {};
            auto path = relative.isString() ? QVPathFromFileURLString(relative.toString()) : std::nullopt;
            if (!path) {
                fail(objectName(index) + " is not a file URL");
                return {};
            }
            return Value::url(*path);
        }
        if (cls == "NSDate") {
            plist_t time = member(node, "NS.time");
            double seconds = 0;
            if (time && plist_get_node_type(time) == PLIST_REAL) {
                plist_get_real_val(time, &seconds);
            } else if (time && plist_get_node_type(time) == PLIST_UINT) {
                uint64_t u = 0;
                plist_get_uint_val(time, &u);
                seconds = double(static_cast<int64_t>(u));
            } else {
                fail(objectName(index) + " is a date without a time");
                return {};
            }
            return Value::date(seconds + kSecondsFrom1970To2001);
        }
        if (cls == "NSString" || cls == "NSMutableString") {
            plist_t s = member(node, "NS.string");
            if (!s || plist_get_node_type(s) != PLIST_STRING) {
                fail(objectName(index) + " is a string without text");
                return {};
            }
            return readString(s, objectName(index));
        }
        if (cls == "NSData" || cls == "NSMutableData") {
            plist_t d = member(node, "NS.data");
            if (d && plist_get_node_type(d) == PLIST_DATA) return *QVPlistScalarValue(d);
            Value v = decodeReference(d, "the bytes of a data object");
            if (failed()) return {};
            if (!v.isData()) {
                fail(objectName(index) + " is a data object without bytes");
                return {};
            }
            return v;
        }
        auto entry = lookupClass(cls);
        if (!entry) {
            fail(objectName(index) + " is of the unknown class '" + cls + "'");
            return {};
        }
        KeyedDecoder coder(*this, node, cls);
        ObjectRef object = entry->decode(coder);
        if (failed()) return {};
        if (!object) {
            fail(objectName(index) + " of class '" + cls + "' could not be decoded");
            return {};
        }
        return Value(object);
    }

    plist_t objects_;
    uint64_t count_;
    std::vector<uint8_t> state_; // 0 unread, 1 being read, 2 read
    std::vector<Value> cache_;
    std::unordered_map<uint64_t, std::string> classNames_;
    int depth_ = 0;
    std::string failure_;
};

} // namespace detail

void* KeyedDecoder::node(const std::string& key) const {
    return plist_dict_get_item(static_cast<plist_t>(dict_), detail::escapeKey(key).c_str());
}
bool KeyedDecoder::containsValueForKey(const std::string& key) const { return node(key) != nullptr; }
void KeyedDecoder::fail(const std::string& reason) { reader_.fail(reason); }
bool KeyedDecoder::failed() const { return reader_.failed(); }

Value KeyedDecoder::decodeValue(const std::string& key) {
    plist_t n = static_cast<plist_t>(node(key));
    if (!n) return {};
    return reader_.decodeReference(n, ("field '" + key + "' of a " + className_).c_str());
}

bool KeyedDecoder::decodeBool(const std::string& key) {
    plist_t n = static_cast<plist_t>(node(key));
    if (!n) return false;
    if (plist_get_node_type(n) == PLIST_BOOLEAN) {
        uint8_t b = 0;
        plist_get_bool_val(n, &b);
        return b != 0;
    }
    if (plist_get_node_type(n) == PLIST_UINT) {
        uint64_t u = 0;
        plist_get_uint_val(n, &u);
        return u != 0;
    }
    fail("field '" + key + "' of a " + className_ + " is not a flag");
    return false;
}

int64_t KeyedDecoder::decodeInt(const std::string& key) {
    plist_t n = static_cast<plist_t>(node(key));
    if (!n) return 0;
    if (plist_get_node_type(n) == PLIST_UINT) {
        uint64_t u = 0;
        plist_get_uint_val(n, &u);
        return static_cast<int64_t>(u);
    }
    if (plist_get_node_type(n) == PLIST_BOOLEAN) {
        uint8_t b = 0;
        plist_get_bool_val(n, &b);
        return b ? 1 : 0;
    }
    fail("field '" + key + "' of a " + className_ + " is not an integer");
    return 0;
}

double KeyedDecoder::decodeDouble(const std::string& key) {
    plist_t n = static_cast<plist_t>(node(key));
    if (!n) return 0;
    if (plist_get_node_type(n) == PLIST_REAL) {
        double d = 0;
        plist_get_real_val(n, &d);
        return d;
    }
    if (plist_get_node_type(n) == PLIST_UINT) {
        uint64_t u = 0;
        plist_get_uint_val(n, &u);
        return double(static_cast<int64_t>(u));
    }
    fail("field '" + key + "' of a " + className_ + " is not a number");
    return 0;
}

namespace {

// How deep the property list itself may nest: our archives are flat (objects refer
// to each other by UID), so five levels are enough; the margin is for other writers.
// Their size is bounded only by what libplist takes.
constexpr QVPropertyListLimits kArchiveLimits{std::numeric_limits<uint32_t>::max(), 64};

std::optional<Value> unarchive(const Bytes& data, std::string& why) {
    why = QVPropertyListProblem(data.data(), data.size(), QVPropertyListFormat::Binary, kArchiveLimits);
    if (!why.empty()) return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.size()), &parsed);
    detail::PlistHolder holder(parsed);
    if (!parsed) {
        why = "not a property list";
        return std::nullopt;
    }
    if (plist_get_node_type(parsed) != PLIST_DICT) {
        why = "the property list is not a dictionary";
        return std::nullopt;
    }
    plist_t archiver = plist_dict_get_item(parsed, "$archiver");
    if (!archiver || plist_get_node_type(archiver) != PLIST_STRING ||
        plist_string_val_compare(archiver, QVKeyedArchiverName) != 0) {
        why = "not written by a keyed archiver we know";
        return std::nullopt;
    }
    plist_t version = plist_dict_get_item(parsed, "$version");
    uint64_t v = 0;
    if (!version || plist_get_node_type(version) != PLIST_UINT) {
        why = "no archive version";
        return std::nullopt;
    }
    plist_get_uint_val(version, &v);
    if (v != uint64_t(QVKeyedArchiveVersion)) {
        why = QVFormat("unsupported archive version %llu", static_cast<unsigned long long>(v));
        return std::nullopt;
    }
    plist_t objects = plist_dict_get_item(parsed, "$objects");
    if (!objects || plist_get_node_type(objects) != PLIST_ARRAY || plist_array_get_size(objects) == 0 ||
        plist_get_node_type(plist_array_get_item(objects, 0)) != PLIST_STRING ||
        plist_string_val_compare(plist_array_get_item(objects, 0), "$null") != 0) {
        why = "no list of objects";
        return std::nullopt;
    }
    plist_t top = plist_dict_get_item(parsed, "$top");
    plist_t root = top && plist_get_node_type(top) == PLIST_DICT ? plist_dict_get_item(top, "root") : nullptr;
    if (!root || plist_get_node_type(root) != PLIST_UID) {
        why = "no root object";
        return std::nullopt;
    }
    detail::ArchiveReader reader(objects);
    Value value = reader.decodeReference(root, "the root");
    if (reader.failed()) {
        why = reader.failure();
        return std::nullopt;
    }
    return value;
}

} // namespace

std::optional<Value> unarchiveObjectWithData(const Bytes& data, QVError* error) {
    std::string why;
    try {
        auto value = unarchive(data, why);
        if (value) return value;
    } catch (const std::exception& e) {
        why = e.what();
    }
    QVSetAppError(error, QVErrorFailed, "Failed to read keyed archive: " + why);
    return std::nullopt;
}

} // namespace qv

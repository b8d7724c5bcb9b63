#pragma once
// A dynamic value: what a record field, a dictionary entry or an archived object holds.
// Arrays, dictionaries and objects are shared by reference (as the records and the
// master file's nested dictionaries are), scalars are copied.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qv {

using Bytes = std::vector<uint8_t>;

class KeyedEncoder;  // vault/KeyedArchive.h

// Base of every reference-counted object that can stand in a Value (records,
// record boxes, Folder Sets, and the live objects of a face such as an operation).
class Object {
public:
    virtual ~Object() = default;
    // The class name under which the object is archived (empty: not archivable).
    virtual std::string className() const = 0;
    // Writes the object's fields into a keyed archive. Objects that can't be archived
    // keep this default and make archiving fail. Decoding goes through the class
    // registry of vault/KeyedArchive.h.
    virtual bool encodeWithCoder(KeyedEncoder& coder) const {
        (void)coder;
        return false;
    }
};
using ObjectRef = std::shared_ptr<Object>;

struct URLValue {
    std::string path;  // a file URL, kept as its absolute path
    bool operator==(const URLValue&) const = default;
};
struct DateValue {
    double secondsSince1970 = 0;
    bool operator==(const DateValue&) const = default;
};

class Value;
using Array = std::vector<Value>;
using ArrayRef = std::shared_ptr<Array>;

// Dictionary keys are strings or binary data (the master file maps lookup keys,
// which are data, to Folder Set blobs).
struct DictKey {
    bool isData = false;
    std::string bytes;
    DictKey() = default;
    DictKey(const char* s) : bytes(s) {}
    DictKey(std::string s) : bytes(std::move(s)) {}
    DictKey(const Bytes& b) : isData(true), bytes(b.begin(), b.end()) {}
    Bytes data() const { return Bytes(bytes.begin(), bytes.end()); }
    auto operator<=>(const DictKey&) const = default;
    bool operator==(const DictKey&) const = default;
};
using Dict = std::map<DictKey, Value>;
using DictRef = std::shared_ptr<Dict>;

class Value {
public:
    enum class Kind { Null, Bool, Int, Real, String, Data, URL, Date, Array, Dict, Object, WeakObject };

    Value() = default;
    Value(std::nullptr_t) {}
    Value(bool b) : v_(b) {}
    Value(int i) : v_(int64_t(i)) {}
    Value(long i) : v_(int64_t(i)) {}
    Value(long long i) : v_(int64_t(i)) {}
    Value(unsigned u) : v_(int64_t(u)) {}
    Value(unsigned long u) : v_(int64_t(u)) {}
    Value(unsigned long long u) : v_(int64_t(u)) {}
    Value(double d) : v_(d) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(std::string s) : v_(std::move(s)) {}
    Value(Bytes b) : v_(std::move(b)) {}
    Value(URLValue u) : v_(std::move(u)) {}
    Value(DateValue d) : v_(d) {}
    Value(ArrayRef a) : v_(std::move(a)) {}
    Value(DictRef d) : v_(std::move(d)) {}
    template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
    Value(std::shared_ptr<T> o) : v_(ObjectRef(std::move(o))) {}
    // A reference that does not keep the object alive (used to break ownership cycles).
    static Value weak(const ObjectRef& o) { Value v; v.v_ = std::weak_ptr<Object>(o); return v; }
    static Value url(std::string path) { return Value(URLValue{std::move(path)}); }
    static Value date(double secondsSince1970) { return Value(DateValue{secondsSince1970}); }
    static Value newArray(Array items = {}) { return Value(std::make_shared<Array>(std::move(items))); }
    static Value newDict(Dict items = {}) { return Value(std::make_shared<Dict>(std::move(items))); }

    Kind kind() const { return static_cast<Kind>(v_.index()); }
    // A weak reference whose object is gone is null, as a nil weak pointer reads.
    bool isNull() const;
    bool isNumber() const { return kind() == Kind::Bool || kind() == Kind::Int || kind() == Kind::Real; }

    // Typed reads; a read of another kind gives the empty value of the type.
    bool toBool() const;
    int64_t toInt() const;
    double toDouble() const;
    const std::string& toString() const;
    const Bytes& toData() const;
    const std::string& toURLPath() const;  // empty unless a URL
    double toDate() const;
    ArrayRef toArray() const;
    DictRef toDict() const;
    ObjectRef toObject() const;  // strong or weak, the object if it is alive
    template <class T> std::shared_ptr<T> as() const { return std::dynamic_pointer_cast<T>(toObject()); }

    bool isString() const { return kind() == Kind::String; }
    bool isData() const { return kind() == Kind::Data; }
    bool isURL() const { return kind() == Kind::URL; }

    // Equality of content for scalars, identity for arrays, dictionaries and objects
    // unless `deep` compares arrays and dictionaries by content.
    bool equals(const Value& other, bool deep = true) const;
    bool operator==(const Value& other) const { return equals(other, true); }

    // A readable form for logs ("(null)" for null).
    std::string description() const;

private:
    std::variant<std::monostate, bool, int64_t, double, std::string, Bytes, URLValue, DateValue, ArrayRef, DictRef,
                 ObjectRef, std::weak_ptr<Object>>
        v_;
};

// Reads dict[key] or a null Value.
Value QVDictGet(const Dict& dict, const DictKey& key);

} // namespace qv

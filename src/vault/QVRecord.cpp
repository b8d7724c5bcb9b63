#include "vault/QVRecord.h"

#include <functional>
#include <vector>

#include "vault/KeyedArchive.h"

namespace qv {

namespace {

// Records never contain themselves in practice; the limit keeps a mistaken cycle
// from overflowing the stack in equality or description.
constexpr int kMaxCompareDepth = 64;

bool valuesEqual(const Value& a, const Value& b, int depth);

bool boxesEqual(const QVRecordValue& a, const QVRecordValue& b, int depth) {
    if (&a == &b) return true;
    return valuesEqual(a.obj(), b.obj(), depth + 1);
}

bool dictsEqual(const Dict& a, const Dict& b, int depth) {
    if (&a == &b) return true;
    if (a.size() != b.size()) return false;
    for (auto ia = a.begin(), ib = b.begin(); ia != a.end(); ++ia, ++ib)
        if (!(ia->first == ib->first) || !valuesEqual(ia->second, ib->second, depth + 1)) return false;
    return true;
}

bool valuesEqual(const Value& a, const Value& b, int depth) {
    if (depth > kMaxCompareDepth) return false;
    if (a.isNull() || b.isNull()) return a.isNull() && b.isNull();
    ObjectRef oa = a.toObject(), ob = b.toObject();
    if (oa && ob) {
        if (oa == ob) return true;
        auto ra = std::dynamic_pointer_cast<QVRecord>(oa), rb = std::dynamic_pointer_cast<QVRecord>(ob);
        if (ra && rb) return dictsEqual(*ra->dict(), *rb->dict(), depth + 1);
        auto ba = std::dynamic_pointer_cast<QVRecordValue>(oa), bb = std::dynamic_pointer_cast<QVRecordValue>(ob);
        if (ba && bb) return boxesEqual(*ba, *bb, depth + 1);
        return false;
    }
    if (a.kind() == Value::Kind::Array && b.kind() == Value::Kind::Array) {
        ArrayRef x = a.toArray(), y = b.toArray();
        if (x == y) return true;
        if (x->size() != y->size()) return false;
        for (size_t i = 0; i < x->size(); ++i)
            if (!valuesEqual((*x)[i], (*y)[i], depth + 1)) return false;
        return true;
    }
    if (a.kind() == Value::Kind::Dict && b.kind() == Value::Kind::Dict)
        return dictsEqual(*a.toDict(), *b.toDict(), depth + 1);
    return a.equals(b, false);
}

// A hash consistent with valuesEqual: content for scalars, the count for
// containers and records (as collections hash), identity for other objects.
size_t valueHash(const Value& v) {
    if (v.isNull()) return 0;
    switch (v.kind()) {
    case Value::Kind::Bool:
    case Value::Kind::Int:
    case Value::Kind::Real: return std::hash<double>()(v.toDouble());
    case Value::Kind::String: return std::hash<std::string>()(v.toString());
    case Value::Kind::Data: return std::hash<std::string>()(std::string(v.toData().begin(), v.toData().end()));
    case Value::Kind::URL: return std::hash<std::string>()(v.toURLPath());
    case Value::Kind::Date: return std::hash<double>()(v.toDate());
    case Value::Kind::Array: return v.toArray()->size();
    case Value::Kind::Dict: return v.toDict()->size();
    default: {
        ObjectRef o = v.toObject();
        if (auto r = std::dynamic_pointer_cast<QVRecord>(o)) return r->hash();
        if (auto b = std::dynamic_pointer_cast<QVRecordValue>(o)) return b->hash();
        return std::hash<const void*>()(o.get());
    }
    }
}

std::string describe(const Value& v, int depth);

std::string describeDict(const Dict& dict, int depth) {
    std::string out = "{";
    for (const auto& [key, value] : dict) {
        if (out.size() > 1) out += "; ";
        out += key.isData ? Value(key.data()).description() : key.bytes;
        out += " = " + describe(value, depth + 1);
    }
    return out + "}";
}

std::string describe(const Value& v, int depth) {
    if (depth > kMaxCompareDepth) return "...";
    ObjectRef o = v.toObject();
    if (auto r = std::dynamic_pointer_cast<QVRecord>(o)) return describeDict(*r->dict(), depth + 1);
    if (auto b = std::dynamic_pointer_cast<QVRecordValue>(o)) return describe(b->obj(), depth + 1);
    if (v.kind() == Value::Kind::Dict) return describeDict(*v.toDict(), depth + 1);
    if (v.kind() == Value::Kind::Array) {
        std::string out = "(";
        for (const auto& item : *v.toArray()) out += (out.size() > 1 ? ", " : "") + describe(item, depth + 1);
        return out + ")";
    }
    return v.description();
}

std::vector<std::string> splitKeyPath(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        size_t dot = path.find('.', start);
        parts.push_back(path.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    return parts;
}

// valueForKey on whatever a key path reaches: records and dictionaries answer,
// anything else reads as null.
Value valueOf(const Value& target, const std::string& key) {
    if (auto record = target.as<QVRecord>()) return record->valueForKey(key);
    if (DictRef dict = target.toDict()) return QVDictGet(*dict, key);
    return {};
}

void setValueOn(const Value& target, const Value& value, const std::string& key) {
    if (auto record = target.as<QVRecord>()) {
        record->setValueForKey(value, key);
    } else if (DictRef dict = target.toDict()) {
        if (value.isNull())
            dict->erase(key);
        else
            (*dict)[key] = value;
    }
}

// Holds a box's lock for a scope when the box is atomic.
class BoxLock {
public:
    explicit BoxLock(const QVRecordValueRef& box) : box_(box && box->atomic() ? box : nullptr) {
        if (box_) box_->lock();
    }
    ~BoxLock() {
        if (box_) box_->unlock();
    }
    BoxLock(const BoxLock&) = delete;
    BoxLock& operator=(const BoxLock&) = delete;

private:
    QVRecordValueRef box_;
};

ObjectRef decodeBox(KeyedDecoder& coder) {
    bool atomic = coder.decodeBool("atomic");
    Value obj = coder.decodeValue("obj");
    if (coder.failed()) return nullptr;
    return std::make_shared<QVRecordValue>(atomic, std::move(obj));
}

ObjectRef decodeRecord(KeyedDecoder& coder) {
    Value dict = coder.decodeValue("dict");
    if (coder.failed()) return nullptr;
    if (dict.kind() != Value::Kind::Dict) {
        coder.fail("a record without its field dictionary");
        return nullptr;
    }
    for (const auto& [name, box] : *dict.toDict()) {
        if (name.isData || name.bytes.empty() || !box.as<QVRecordValue>()) {
            coder.fail("a record with a field that is not a named box");
            return nullptr;
        }
    }
    return std::make_shared<QVRecord>(dict.toDict());
}

const bool kRecordClassesRegistered = QVRegisterArchivableClass("QVRecordValue", decodeBox) &&
                                      QVRegisterArchivableClass("QVRecord", decodeRecord);

} // namespace

// ---------------------------------------------------------------------------
// QVRecordValue

QVRecordValue::QVRecordValue(bool atomic, Value obj) : atomic_(atomic), obj_(std::move(obj)) {}

Value QVRecordValue::obj() const {
    if (!atomic_) return obj_;
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return obj_;
}

void QVRecordValue::setObj(const Value& value) {
    if (!atomic_) {
        obj_ = value;
        return;
    }
    std::lock_guard<std::recursive_mutex> guard(lock_);
    obj_ = value;
}

bool QVRecordValue::encodeWithCoder(KeyedEncoder& coder) const {
    (void)kRecordClassesRegistered;
    Value value = obj();  // read under the lock, archived outside it
    coder.encodeValue(value, "obj");
    coder.encodeBool(atomic_, "atomic");
    return true;
}

std::shared_ptr<QVRecordValue> QVRecordValue::copy() const {
    Value value = obj();
    if (ArrayRef array = value.toArray())
        value = Value(std::make_shared<Array>(*array));
    else if (DictRef dict = value.toDict())
        value = Value(std::make_shared<Dict>(*dict));
    return std::make_shared<QVRecordValue>(atomic_, std::move(value));
}

size_t QVRecordValue::hash() const { return valueHash(obj()); }
bool QVRecordValue::isEqual(const QVRecordValue& other) const { return boxesEqual(*this, other, 0); }
std::string QVRecordValue::description() const { return describe(obj(), 0); }

// ---------------------------------------------------------------------------
// QVRecord

QVRecord::QVRecord() : dict_(std::make_shared<Dict>()) {}
QVRecord::QVRecord(DictRef dict) : dict_(dict ? std::move(dict) : std::make_shared<Dict>()) {}

bool QVRecord::encodeWithCoder(KeyedEncoder& coder) const {
    coder.encodeValue(Value(dict_), "dict");
    return true;
}

DictRef QVRecord::dictCopy(QVError* error) const {
    auto copy = std::make_shared<Dict>();
    for (const auto& [name, entry] : *dict_) {
        auto box = entry.as<QVRecordValue>();
        Value value = box ? box->obj() : Value();
        if (value.isNull()) {
            QVSetAppError(error, QVErrorFailed,
                          "The record's field '" + (name.isData ? std::string("?") : name.bytes) + "' holds no value");
            return nullptr;
        }
        (*copy)[name] = value;
    }
    return copy;
}

QVRecordValueRef QVRecord::boxForKey(const std::string& key) const {
    auto it = dict_->find(DictKey(key));
    return it == dict_->end() ? nullptr : it->second.as<QVRecordValue>();
}

Value QVRecord::valueForKey(const std::string& key) const {
    QVRecordValueRef box = boxForKey(key);
    return box ? box->obj() : Value();
}

void QVRecord::setValueForKey(const Value& value, const std::string& key) {
    QVRecordValueRef box = boxForKey(key);
    willChangeValueForKey(key);
    if (box) box->setObj(value);
    didChangeValueForKey(key);
}

Value QVRecord::valueForKeyPath(const std::string& keyPath) const {
    std::vector<std::string> parts = splitKeyPath(keyPath);
    QVRecordValueRef box = boxForKey(parts[0]);
    if (!box) return {};
    BoxLock lock(box);
    Value value = box->obj();
    for (size_t i = 1; i < parts.size() && !value.isNull(); ++i) value = valueOf(value, parts[i]);
    return value;
}

void QVRecord::setValueForKeyPath(const Value& value, const std::string& keyPath) {
    std::vector<std::string> parts = splitKeyPath(keyPath);
    QVRecordValueRef box = boxForKey(parts[0]);
    if (!box) return;
    BoxLock lock(box);
    if (parts.size() == 1) {
        box->setObj(value);  // deliberately unobserved
        return;
    }
    Value target = box->obj();
    for (size_t i = 1; i + 1 < parts.size() && !target.isNull(); ++i) target = valueOf(target, parts[i]);
    setValueOn(target, value, parts.back());
}

void QVRecord::addObserver(const std::shared_ptr<QVRecordObserver>& observer, const std::string& key) {
    if (!observer) return;
    std::lock_guard<std::mutex> guard(observersMutex_);
    observers_.emplace(key, observer);
}

void QVRecord::removeObserver(const QVRecordObserver* observer, const std::string& key) {
    std::lock_guard<std::mutex> guard(observersMutex_);
    auto [first, last] = observers_.equal_range(key);
    for (auto it = first; it != last;) {
        auto held = it->second.lock();
        if (!held || held.get() == observer)
            it = observers_.erase(it);
        else
            ++it;
    }
}

void QVRecord::willChangeValueForKey(const std::string& key) const { notify(Moment::Will, key); }
void QVRecord::didChangeValueForKey(const std::string& key) const { notify(Moment::Did, key); }

void QVRecord::notify(Moment moment, const std::string& key) const {
    // Called outside the observers' lock, so that an observer may write fields
    // or register and unregister itself.
    std::vector<std::shared_ptr<QVRecordObserver>> live;
    {
        std::lock_guard<std::mutex> guard(observersMutex_);
        auto [first, last] = observers_.equal_range(key);
        for (auto it = first; it != last; ++it)
            if (auto o = it->second.lock()) live.push_back(std::move(o));
    }
    for (const auto& o : live) {
        if (moment == Moment::Will)
            o->recordWillChangeValueForKey(*this, key);
        else
            o->recordDidChangeValueForKey(*this, key);
    }
}

size_t QVRecord::hash() const { return dict_->size(); }
bool QVRecord::isEqual(const QVRecord& other) const { return dictsEqual(*dict_, *other.dict_, 0); }
std::string QVRecord::description() const { return describeDict(*dict_, 0); }

// ---------------------------------------------------------------------------
// Schemas at run time

DictRef QVRecordFillDict(DictRef dict, const QVSchema& schema) {
    if (!dict) dict = std::make_shared<Dict>();
    for (const QVSchemaField& field : schema.fields) {
        DictKey key{std::string(field.name)};
        if (dict->find(key) == dict->end()) (*dict)[key] = Value(std::make_shared<QVRecordValue>(field.atomic));
    }
    return dict;
}

QVRecordRef QVRecordForProtocol(const QVSchema& schema) {
    return std::make_shared<QVRecord>(QVRecordFillDict(nullptr, schema));
}

void QVRecordUpgrade(const QVRecordRef& record, const QVSchema& schema) {
    if (record) QVRecordFillDict(record->dict(), schema);
}

bool QVRecordValuesEqual(const Value& a, const Value& b) { return valuesEqual(a, b, 0); }

} // namespace qv

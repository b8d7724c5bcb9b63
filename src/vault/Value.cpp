#include "vault/Value.h"

#include <cstdio>
#include <sstream>

namespace qv {

namespace {
const std::string kEmptyString;
const Bytes kEmptyBytes;
} // namespace

bool Value::isNull() const {
    if (kind() == Kind::Null) return true;
    if (kind() == Kind::WeakObject) return std::get<std::weak_ptr<Object>>(v_).expired();
    return false;
}

bool Value::toBool() const {
    switch (kind()) {
    case Kind::Bool: return std::get<bool>(v_);
    case Kind::Int: return std::get<int64_t>(v_) != 0;
    case Kind::Real: return std::get<double>(v_) != 0;
    default: return false;
    }
}

int64_t Value::toInt() const {
    switch (kind()) {
    case Kind::Bool: return std::get<bool>(v_) ? 1 : 0;
    case Kind::Int: return std::get<int64_t>(v_);
    case Kind::Real: return static_cast<int64_t>(std::get<double>(v_));
    default: return 0;
    }
}

double Value::toDouble() const {
    switch (kind()) {
    case Kind::Bool: return std::get<bool>(v_) ? 1 : 0;
    case Kind::Int: return static_cast<double>(std::get<int64_t>(v_));
    case Kind::Real: return std::get<double>(v_);
    case Kind::Date: return std::get<DateValue>(v_).secondsSince1970;
    default: return 0;
    }
}

const std::string& Value::toString() const {
    return kind() == Kind::String ? std::get<std::string>(v_) : kEmptyString;
}
const Bytes& Value::toData() const { return kind() == Kind::Data ? std::get<Bytes>(v_) : kEmptyBytes; }
const std::string& Value::toURLPath() const {
    return kind() == Kind::URL ? std::get<URLValue>(v_).path : kEmptyString;
}
double Value::toDate() const { return kind() == Kind::Date ? std::get<DateValue>(v_).secondsSince1970 : 0; }
ArrayRef Value::toArray() const { return kind() == Kind::Array ? std::get<ArrayRef>(v_) : nullptr; }
DictRef Value::toDict() const { return kind() == Kind::Dict ? std::get<DictRef>(v_) : nullptr; }
ObjectRef Value::toObject() const {
    if (kind() == Kind::Object) return std::get<ObjectRef>(v_);
    if (kind() == Kind::WeakObject) return std::get<std::weak_ptr<Object>>(v_).lock();
    return nullptr;
}

bool Value::equals(const Value& other, bool deep) const {
    if (isNull() || other.isNull()) return isNull() && other.isNull();
    if (isNumber() && other.isNumber()) {
        if (kind() == Kind::Real || other.kind() == Kind::Real) return toDouble() == other.toDouble();
        return toInt() == other.toInt();
    }
    bool objectKinds = (kind() == Kind::Object || kind() == Kind::WeakObject) &&
                       (other.kind() == Kind::Object || other.kind() == Kind::WeakObject);
    if (objectKinds) return toObject() == other.toObject();
    if (kind() != other.kind()) return false;
    switch (kind()) {
    case Kind::String: return toString() == other.toString();
    case Kind::Data: return toData() == other.toData();
    case Kind::URL: return toURLPath() == other.toURLPath();
    case Kind::Date: return toDate() == other.toDate();
    case Kind::Array: {
        auto a = toArray(), b = other.toArray();
        if (a == b) return true;
        if (!deep || a->size() != b->size()) return false;
        for (size_t i = 0; i < a->size(); ++i)
            if (!(*a)[i].equals((*b)[i], true)) return false;
        return true;
    }
    case Kind::Dict: {
        auto a = toDict(), b = other.toDict();
        if (a == b) return true;
        if (!deep || a->size() != b->size()) return false;
        for (auto ia = a->begin(), ib = b->begin(); ia != a->end(); ++ia, ++ib)
            if (!(ia->first == ib->first) || !ia->second.equals(ib->second, true)) return false;
        return true;
    }
    default: return false;
    }
}

std::string Value::description() const {
    if (isNull()) return "(null)";
    switch (kind()) {
    case Kind::Bool: return toBool() ? "1" : "0";
    case Kind::Int: return std::to_string(toInt());
    case Kind::Real: {
        std::ostringstream s;
        s << toDouble();
        return s.str();
    }
    case Kind::String: return toString();
    case Kind::Data: {
        std::string out = "<";
        char hex[3];
        for (size_t i = 0; i < toData().size(); ++i) {
            if (i && i % 4 == 0) out += ' ';
            std::snprintf(hex, sizeof hex, "%02x", toData()[i]);
            out += hex;
        }
        return out + ">";
    }
    case Kind::URL: return "file://" + toURLPath();
    case Kind::Date: return std::to_string(toDate());
    case Kind::Array: {
        std::string out = "(";
        for (const auto& v : *toArray()) out += (out.size() > 1 ? ", " : "") + v.description();
        return out + ")";
    }
    case Kind::Dict: {
        std::string out = "{";
        for (const auto& [k, v] : *toDict())
            out += (out.size() > 1 ? "; " : "") + (k.isData ? Value(k.data()).description() : k.bytes) + " = " +
                   v.description();
        return out + "}";
    }
    case Kind::Object:
    case Kind::WeakObject: return "<" + toObject()->className() + ">";
    default: return "(null)";
    }
}

Value QVDictGet(const Dict& dict, const DictKey& key) {
    auto it = dict.find(key);
    return it == dict.end() ? Value() : it->second;
}

} // namespace qv

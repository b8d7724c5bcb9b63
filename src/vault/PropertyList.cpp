#include "vault/PropertyList.h"

#include <cstdint>
#include <cstdlib>
#include <plist/plist.h>

#include "vault/PlistScalars.h"
#include "vault/PropertyListGuard.h"

namespace qv {

namespace {

// Matches the guard's limit; the guard refuses deeper lists before they are parsed.
constexpr int kMaxDepth = int(QVPlainPropertyListLimits.maxDepth);

std::optional<Value> fromNode(plist_t node, int depth) {
    if (!node || depth > kMaxDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        Value v(std::string(s ? s : ""));
        std::free(s);
        return v;
    }
    case PLIST_ARRAY: {
        auto arr = std::make_shared<Array>();
        uint32_t n = plist_array_get_size(node);
        for (uint32_t i = 0; i < n; ++i) {
            auto item = fromNode(plist_array_get_item(node, i), depth + 1);
            if (!item) return std::nullopt;
            arr->push_back(*item);
        }
        return Value(arr);
    }
    case PLIST_DICT: {
        auto dict = std::make_shared<Dict>();
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!key) break;
            std::string k(key);
            std::free(key);
            auto v = fromNode(item, depth + 1);
            if (!v) {
                std::free(it);
                return std::nullopt;
            }
            (*dict)[k] = *v;
        }
        std::free(it);
        return Value(dict);
    }
    default: return QVPlistScalarValue(node);
    }
}

plist_t toNode(const Value& v, int depth) {
    if (depth > kMaxDepth) return nullptr;
    switch (v.kind()) {
    case Value::Kind::Bool: return plist_new_bool(v.toBool());
    case Value::Kind::Int: return plist_new_uint(static_cast<uint64_t>(v.toInt()));
    case Value::Kind::Real: return plist_new_real(v.toDouble());
    case Value::Kind::String: return plist_new_string(v.toString().c_str());
    case Value::Kind::Data:
        return plist_new_data(reinterpret_cast<const char*>(v.toData().data()), v.toData().size());
    case Value::Kind::Date: {
        double t = v.toDate() - kSecondsFrom1970To2001;
        // Whole seconds from 2001 in 32 bits: a date beyond them (or NaN) can't be written.
        if (!(t > double(INT32_MIN) - 1 && t < double(INT32_MAX) + 1)) return nullptr;
        auto sec = static_cast<int32_t>(t);
        return plist_new_date(sec, static_cast<int32_t>((t - sec) * 1e6));
    }
    case Value::Kind::Array: {
        plist_t arr = plist_new_array();
        for (const auto& item : *v.toArray()) {
            plist_t n = toNode(item, depth + 1);
            if (!n) {
                plist_free(arr);
                return nullptr;
            }
            plist_array_append_item(arr, n);
        }
        return arr;
    }
    case Value::Kind::Dict: {
        plist_t dict = plist_new_dict();
        for (const auto& [k, item] : *v.toDict()) {
            plist_t n = k.isData ? nullptr : toNode(item, depth + 1);
            if (!n) {
                plist_free(dict);
                return nullptr;
            }
            plist_dict_set_item(dict, k.bytes.c_str(), n);
        }
        return dict;
    }
    default: return nullptr;
    }
}

std::optional<Value> fromData(const Bytes& data, QVPropertyListFormat format, QVError* error) {
    const std::string problem = QVPropertyListProblem(data.data(), data.size(), format, QVPlainPropertyListLimits);
    if (!problem.empty()) {
        QVSetAppError(error, QVErrorFailed, "Not a valid property list: " + problem);
        return std::nullopt;
    }
    plist_t root = nullptr;
    if (data.size() >= 8 && std::equal(data.begin(), data.begin() + 6, "bplist"))
        plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.size()), &root);
    else if (!data.empty())
        plist_from_xml(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.size()), &root);
    std::optional<Value> value = fromNode(root, 0);
    if (root) plist_free(root);
    if (!value) QVSetAppError(error, QVErrorFailed, "Not a valid property list");
    return value;
}

} // namespace

std::optional<Value> QVPropertyListFromData(const Bytes& data, QVError* error) {
    return fromData(data, QVPropertyListFormat::Any, error);
}

std::optional<Value> QVPropertyListFromXMLData(const Bytes& data, QVError* error) {
    return fromData(data, QVPropertyListFormat::XML, error);
}

std::optional<Bytes> QVPropertyListToXML(const Value& value) {
    plist_t root = toNode(value, 0);
    if (!root) return std::nullopt;
    char* xml = nullptr;
    uint32_t n = 0;
    plist_to_xml(root, &xml, &n);
    plist_free(root);
    if (!xml) return std::nullopt;
    Bytes out(reinterpret_cast<uint8_t*>(xml), reinterpret_cast<uint8_t*>(xml) + n);
    std::free(xml);
    return out;
}

} // namespace qv

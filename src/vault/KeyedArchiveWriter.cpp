#include <plist/plist.h>

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "vault/FileURL.h"
#include "vault/KeyedArchive.h"
#include "vault/KeyedArchiveSupport.h"

namespace qv {

namespace detail {

namespace {

const char* const kClassNSMutableDictionary = "NSMutableDictionary";
const char* const kClassNSMutableArray = "NSMutableArray";
const char* const kClassNSURL = "NSURL";
const char* const kClassNSDate = "NSDate";

} // namespace

// Flattens an object graph into "$objects": each container and object once, by
// identity, each distinct string once.
class ArchiveWriter {
public:
    ~ArchiveWriter() {
        for (plist_t node : objects_)
            if (node) plist_free(node);
    }

    std::optional<Bytes> run(const Value& root, QVError* error) {
        objects_.push_back(plist_new_string("$null"));
        uint64_t rootUID = encode(root);
        if (failed()) return refuse(error);

        PlistHolder top(plist_new_dict());
        plist_dict_set_item(top.get(), "$archiver", plist_new_string(QVKeyedArchiverName));
        plist_dict_set_item(top.get(), "$version", plist_new_uint(uint64_t(QVKeyedArchiveVersion)));
        plist_t topDict = plist_new_dict();
        plist_dict_set_item(topDict, "root", plist_new_uid(rootUID));
        plist_dict_set_item(top.get(), "$top", topDict);
        plist_t array = plist_new_array();
        plist_dict_set_item(top.get(), "$objects", array);
        for (plist_t& node : objects_) {
            plist_array_append_item(array, node);
            node = nullptr; // owned by `top` now
        }
        objects_.clear();

        char* bin = nullptr;
        uint32_t length = 0;
        plist_to_bin(top.get(), &bin, &length);
        if (!bin || length == 0) {
            if (bin) plist_to_bin_free(bin);
            fail("the property list could not be written");
            return refuse(error);
        }
        Bytes out(reinterpret_cast<const uint8_t*>(bin), reinterpret_cast<const uint8_t*>(bin) + length);
        plist_to_bin_free(bin);
        return out;
    }

    // Appends `value` to $objects (or finds it there) and gives its UID.
    uint64_t encode(const Value& value) {
        if (failed() || value.isNull()) return 0;
        switch (value.kind()) {
        case Value::Kind::Bool:
            return add(plist_new_bool(value.toBool()));
        case Value::Kind::Int:
            return add(plist_new_uint(static_cast<uint64_t>(value.toInt())));
        case Value::Kind::Real:
            return add(plist_new_real(value.toDouble()));
        case Value::Kind::String:
            return encodeString(value.toString());
        case Value::Kind::Data: {
            const Bytes& d = value.toData();
            return add(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
        }
        case Value::Kind::URL:
            return encodeURL(value.toURLPath());
        case Value::Kind::Date: {
            plist_t dict = plist_new_dict();
            plist_dict_set_item(dict, "NS.time", plist_new_real(value.toDate() - kSecondsFrom1970To2001));
            plist_dict_set_item(dict, "$class", plist_new_uid(classUID(kClassNSDate, {kClassNSDate, "NSObject"})));
            return add(dict);
        }
        case Value::Kind::Array:
            return encodeArray(value.toArray());
        case Value::Kind::Dict:
            return encodeDict(value.toDict());
        case Value::Kind::Object:
        case Value::Kind::WeakObject:
            return encodeObject(value.toObject());
        default:
            fail("a value of unknown kind");
            return 0;
        }
    }

    void fail(const std::string& why) {
        if (failure_.empty()) failure_ = why.empty() ? "unknown reason" : why;
    }
    bool failed() const { return !failure_.empty(); }

    // Stores an inline node under an escaped key of an object's entry; takes the node.
    void setMember(plist_t dict, const std::string& key, plist_t node) {
        if (failed() || !isPlistString(key) || key.empty()) {
            plist_free(node);
            fail("a field name that is empty or not UTF-8");
            return;
        }
        plist_dict_set_item(dict, escapeKey(key).c_str(), node);
    }

private:
    std::optional<Bytes> refuse(QVError* error) {
        QVSetAppError(error, QVErrorFailed, "Failed to write keyed archive: " + failure_);
        return std::nullopt;
    }

    uint64_t add(plist_t node) {
        objects_.push_back(node);
        return objects_.size() - 1;
    }

    uint64_t encodeString(const std::string& s) {
        if (!isPlistString(s)) {
            fail("a string that is not UTF-8 or holds a NUL");
            return 0;
        }
        auto it = strings_.find(s);
        if (it != strings_.end()) return it->second;
        uint64_t uid = add(plist_new_string(s.c_str()));
        strings_.emplace(s, uid);
        return uid;
    }

    uint64_t encodeURL(const std::string& path) {
        if (path.empty() || path[0] != '/') {
            fail("a URL that is not an absolute path");
            return 0;
        }
        if (path.find('\0') != std::string::npos) {
            fail("a URL that holds a NUL");
            return 0;
        }
        uint64_t uid = reserve();
        uint64_t relative = encodeString(QVFileURLStringFromPath(path));
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "NS.base", plist_new_uid(0));
        plist_dict_set_item(dict, "NS.relative", plist_new_uid(relative));
        plist_dict_set_item(dict, "$class", plist_new_uid(classUID(kClassNSURL, {kClassNSURL, "NSObject"})));
        objects_[uid] = dict;
        return uid;
    }

    // Containers and objects: written once, by identity; a container met again
    // while it is still being written is a cycle, which no reader could rebuild.
    std::optional<uint64_t> seen(const void* identity) {
        auto it = done_.find(identity);
        if (it != done_.end()) return it->second;
        if (inProgress_.count(identity)) {
            fail("a reference cycle");
            return 0;
        }
        return std::nullopt;
    }

    struct Nesting {
        ArchiveWriter& w;
        const void* id;
        Nesting(ArchiveWriter& writer, const void* identity) : w(writer), id(identity) {
            w.inProgress_.insert(id);
            if (++w.depth_ > QVKeyedArchiveMaxDepth) w.fail("objects nested too deeply");
        }
        ~Nesting() {
            w.inProgress_.erase(id);
            --w.depth_;
        }
    };

    uint64_t encodeArray(const ArrayRef& array) {
        if (auto uid = seen(array.get())) return *uid;
        uint64_t uid = reserve();
        {
            Nesting nesting(*this, array.get());
            plist_t refs = plist_new_array();
            PlistHolder holder(refs);
            for (const Value& item : *array) {
                if (failed()) break;
                plist_array_append_item(refs, plist_new_uid(encode(item)));
            }
            if (failed()) return 0;
            plist_t dict = plist_new_dict();
            plist_dict_set_item(dict, "NS.objects", holder.release());
            plist_dict_set_item(
                dict, "$class",
                plist_new_uid(classUID(kClassNSMutableArray, {kClassNSMutableArray, "NSArray", "NSObject"})));
            objects_[uid] = dict;
        }
        done_[array.get()] = uid;
        keepAlive_.push_back(array);
        return uid;
    }

    uint64_t encodeDict(const DictRef& dict) {
        if (auto uid = seen(dict.get())) return *uid;
        uint64_t uid = reserve();
        {
            Nesting nesting(*this, dict.get());
            PlistHolder keys(plist_new_array()), values(plist_new_array());
            for (const auto& [key, item] : *dict) {
                if (failed()) break;
                uint64_t keyUID = key.isData ? encode(Value(key.data())) : encodeString(key.bytes);
                plist_array_append_item(keys.get(), plist_new_uid(keyUID));
                plist_array_append_item(values.get(), plist_new_uid(encode(item)));
            }
            if (failed()) return 0;
            plist_t node = plist_new_dict();
            plist_dict_set_item(node, "NS.keys", keys.release());
            plist_dict_set_item(node, "NS.objects", values.release());
            plist_dict_set_item(node, "$class",
                                plist_new_uid(classUID(kClassNSMutableDictionary,
                                                       {kClassNSMutableDictionary, "NSDictionary", "NSObject"})));
            objects_[uid] = node;
        }
        done_[dict.get()] = uid;
        keepAlive_.push_back(dict);
        return uid;
    }

    uint64_t encodeObject(const ObjectRef& object) {
        if (!object) return 0;
        if (auto uid = seen(object.get())) return *uid;
        std::string name = object->className();
        auto entry = lookupClass(name);
        if (!entry) {
            fail("an object of class '" + (isPlistString(name) ? name : std::string("?")) +
                 "', which can't be archived");
            return 0;
        }
        uint64_t uid = reserve();
        {
            Nesting nesting(*this, object.get());
            PlistHolder dict(plist_new_dict());
            KeyedEncoder coder(*this, dict.get());
            bool ok = object->encodeWithCoder(coder);
            if (!ok) fail("an object of class '" + name + "' refused to be archived");
            if (failed()) return 0;
            plist_dict_set_item(dict.get(), "$class", plist_new_uid(classUID(name, entry->classes)));
            objects_[uid] = static_cast<plist_t>(dict.release());
        }
        done_[object.get()] = uid;
        keepAlive_.push_back(object);
        return uid;
    }

    uint64_t reserve() { return add(nullptr); }

    uint64_t classUID(const std::string& name, const std::vector<std::string>& classes) {
        auto it = classes_.find(name);
        if (it != classes_.end()) return it->second;
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "$classname", plist_new_string(name.c_str()));
        plist_t list = plist_new_array();
        for (const auto& c : classes) plist_array_append_item(list, plist_new_string(c.c_str()));
        plist_dict_set_item(dict, "$classes", list);
        uint64_t uid = add(dict);
        classes_.emplace(name, uid);
        return uid;
    }

    std::vector<plist_t> objects_;
    std::unordered_map<const void*, uint64_t> done_;
    std::unordered_set<const void*> inProgress_;
    std::vector<std::shared_ptr<void>> keepAlive_; // so that no identity is reused mid-way
    std::unordered_map<std::string, uint64_t> strings_;
    std::unordered_map<std::string, uint64_t> classes_;
    int depth_ = 0;
    std::string failure_;
};

} // namespace detail

void KeyedEncoder::setInline(void* node, const std::string& key) {
    writer_.setMember(static_cast<plist_t>(dict_), key, static_cast<plist_t>(node));
}
void KeyedEncoder::encodeValue(const Value& value, const std::string& key) {
    uint64_t uid = writer_.encode(value);
    setInline(plist_new_uid(uid), key);
}
void KeyedEncoder::encodeBool(bool value, const std::string& key) { setInline(plist_new_bool(value), key); }
void KeyedEncoder::encodeInt(int64_t value, const std::string& key) {
    setInline(plist_new_uint(static_cast<uint64_t>(value)), key);
}
void KeyedEncoder::encodeDouble(double value, const std::string& key) { setInline(plist_new_real(value), key); }
void KeyedEncoder::fail(const std::string& reason) { writer_.fail(reason); }

std::optional<Bytes> archivedDataWithRootObject(const Value& root, QVError* error) {
    try {
        detail::ArchiveWriter writer;
        return writer.run(root, error);
    } catch (const std::exception& e) {
        QVSetAppError(error, QVErrorFailed, std::string("Failed to write keyed archive: ") + e.what());
        return std::nullopt;
    }
}

} // namespace qv

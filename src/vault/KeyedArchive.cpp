#include "vault/KeyedArchive.h"

#include <plist/plist.h>

#include "toolkit/Log.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace qv {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of archived dates.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

// How deep the property list itself may nest. Our archives are flat (objects refer
// to each other by UID), so five levels are enough; the margin is for other writers.
constexpr size_t kMaxPlistDepth = 64;

const char* const kClassNSMutableDictionary = "NSMutableDictionary";
const char* const kClassNSMutableArray = "NSMutableArray";
const char* const kClassNSURL = "NSURL";
const char* const kClassNSDate = "NSDate";

const std::set<std::string>& reservedClassNames() {
    static const std::set<std::string> names = {
        "NSObject", "NSDictionary", "NSMutableDictionary", "NSArray", "NSMutableArray", "NSURL",
        "NSDate",   "NSString",     "NSMutableString",     "NSData",  "NSMutableData",
    };
    return names;
}

// ---------------------------------------------------------------------------
// Text helpers

bool isValidUTF8(const std::string& s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    size_t n = s.size(), i = 0;
    while (i < n) {
        unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t len;
        uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

// A string the property list can carry unchanged: UTF-8 without NUL.
bool isPlistString(const std::string& s) { return s.find('\0') == std::string::npos && isValidUTF8(s); }

// Keys of an object's own fields: "$" marks the archive's own keys, so a field
// name that begins with it gets one more.
std::string escapeKey(const std::string& key) { return !key.empty() && key[0] == '$' ? "$" + key : key; }

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// ---------------------------------------------------------------------------
// The registry of archivable classes

struct ClassEntry {
    KeyedDecodeFunction decode;
    std::vector<std::string> classes;  // "$classes": the class, its superclasses, NSObject
};

std::mutex& registryMutex() {
    static std::mutex m;
    return m;
}
std::map<std::string, ClassEntry>& registry() {
    static std::map<std::string, ClassEntry> r;
    return r;
}

std::optional<ClassEntry> lookupClass(const std::string& name) {
    std::lock_guard<std::mutex> lock(registryMutex());
    auto it = registry().find(name);
    if (it == registry().end()) return std::nullopt;
    return it->second;
}

// ---------------------------------------------------------------------------
// Structural check of a binary property list before libplist parses it. libplist
// parses recursively and expands shared sub-trees, so a hostile file could exhaust
// the stack (deep nesting) or memory (one container referenced many times). This
// walk is iterative, follows every reference reachable from the root once, and
// refuses what libplist would choke on. It also checks every marker and extent, so
// that libplist only ever sees well-formed input.

class PlistShapeCheck {
public:
    PlistShapeCheck(const uint8_t* data, size_t size) : p_(data), n_(size) {}

    // Empty when the data may be handed to libplist; otherwise the reason.
    std::string run() {
        if (n_ < 8 + 32) return "too short for a binary property list";
        if (std::memcmp(p_, "bplist00", 8) != 0) return "not a binary property list";
        const uint8_t* t = p_ + n_ - 32;
        offsetSize_ = t[6];
        refSize_ = t[7];
        count_ = be(t + 8, 8);
        uint64_t root = be(t + 16, 8);
        tableOffset_ = be(t + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return "bad trailer";
        if (tableOffset_ < 8 || tableOffset_ > n_ - 32) return "offset table out of range";
        if (count_ == 0 || count_ > (n_ - 32 - tableOffset_) / offsetSize_) return "bad object count";
        if (root >= count_) return "root object out of range";
        // Each expanded node costs at least one reference byte in a file without
        // shared containers; twice that leaves room for other writers' habits.
        limit_ = 2 * uint64_t(n_) + 1024;

        state_.assign(count_, 0);
        kind_.assign(count_, 0);
        expanded_.assign(count_, 0);
        std::vector<Frame> stack;
        std::string why;
        if (!enter(root, stack, why)) return why;
        while (!stack.empty()) {
            Frame& f = stack.back();
            if (f.next < f.refCount) {
                uint64_t child = be(p_ + f.refsAt + f.next * refSize_, refSize_);
                bool isKey = f.isDict && f.next < f.refCount / 2;
                if (child >= count_) return "reference out of range";
                if (state_[child] == 1) return "reference cycle";
                if (state_[child] == 2) {
                    if (isKey && kind_[child] != 0x5 && kind_[child] != 0x6) return "dictionary key is not a string";
                    f.sum = addCapped(f.sum, expanded_[child]);
                    ++f.next;
                    continue;
                }
                if (stack.size() >= kMaxPlistDepth) return "property list nested too deeply";
                // `f` is invalid once enter() pushes; the loop comes back to it.
                if (!enter(child, stack, why)) return why;
                continue;
            }
            uint64_t index = f.index;
            expanded_[index] = addCapped(f.sum, 1);
            state_[index] = 2;
            stack.pop_back();
            if (expanded_[index] > limit_) return "property list expands too much";
        }
        return {};
    }

private:
    struct Frame {
        uint64_t index = 0;
        uint64_t refsAt = 0;
        uint64_t refCount = 0;
        uint64_t next = 0;
        uint64_t sum = 0;
        bool isDict = false;
    };

    uint64_t be(const uint8_t* q, unsigned size) const {
        uint64_t v = 0;
        for (unsigned i = 0; i < size; ++i) v = (v << 8) | q[i];
        return v;
    }
    uint64_t addCapped(uint64_t a, uint64_t b) const {
        return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
    }

    // Parses the marker of object `index`; leaves are finished at once, containers
    // are pushed for their references to be walked.
    bool enter(uint64_t index, std::vector<Frame>& stack, std::string& why) {
        uint64_t off = be(p_ + tableOffset_ + index * offsetSize_, offsetSize_);
        const uint64_t end = tableOffset_;
        if (off < 8 || off >= end) return (why = "object offset out of range"), false;
        uint8_t marker = p_[off];
        uint8_t type = marker >> 4, low = marker & 0x0F;
        uint64_t pos = off + 1;
        auto fits = [&](uint64_t bytes) { return bytes <= end - pos; };
        kind_[index] = type;
        state_[index] = 1;
        uint64_t length = low;
        if (type == 0x4 || type == 0x5 || type == 0x6 || type == 0xA || type == 0xC || type == 0xD) {
            if (low == 0x0F) {
                if (!fits(1)) return (why = "truncated object"), false;
                uint8_t m2 = p_[pos++];
                unsigned bytes = 1u << (m2 & 0x0F);
                if ((m2 >> 4) != 0x1 || (m2 & 0x0F) > 3 || !fits(bytes)) return (why = "bad object length"), false;
                length = be(p_ + pos, bytes);
                pos += bytes;
            }
        }
        uint64_t unit = 0;
        switch (type) {
        case 0x0:
            if (low != 0x8 && low != 0x9) return (why = "unsupported object marker"), false;
            break;
        case 0x1:
            if (low > 4 || !fits(1u << low)) return (why = "bad integer"), false;
            break;
        case 0x2:
            if ((low != 2 && low != 3) || !fits(1u << low)) return (why = "bad real"), false;
            break;
        case 0x3:
            if (low != 3 || !fits(8)) return (why = "bad date"), false;
            break;
        case 0x4:
        case 0x5: unit = 1; break;
        case 0x6: unit = 2; break;
        case 0x8:
            if (low > 3 || !fits(low + 1u)) return (why = "bad reference"), false;
            break;
        case 0xA:
        case 0xC: unit = refSize_; break;
        case 0xD: unit = 2 * uint64_t(refSize_); break;
        default: return (why = "unsupported object marker"), false;
        }
        if (unit && length > (end - pos) / unit) return (why = "object extends past its end"), false;
        // libplist keeps strings as C strings and aborts on one with a NUL inside.
        if (type == 0x5 && std::memchr(p_ + pos, 0, length)) return (why = "string holds a NUL"), false;
        if (type == 0x6)
            for (uint64_t i = 0; i < length; ++i)
                if (p_[pos + 2 * i] == 0 && p_[pos + 2 * i + 1] == 0) return (why = "string holds a NUL"), false;
        if (type == 0xA || type == 0xC || type == 0xD) {
            Frame f;
            f.index = index;
            f.refsAt = pos;
            f.refCount = type == 0xD ? 2 * length : length;
            f.isDict = type == 0xD;
            stack.push_back(f);
        } else {
            expanded_[index] = 1;
            state_[index] = 2;
        }
        return true;
    }

    const uint8_t* p_;
    size_t n_;
    unsigned offsetSize_ = 0, refSize_ = 0;
    uint64_t count_ = 0, tableOffset_ = 0, limit_ = 0;
    std::vector<uint8_t> state_;  // 0 unseen, 1 on the walk, 2 done
    std::vector<uint8_t> kind_;
    std::vector<uint64_t> expanded_;
};

struct PlistDeleter {
    void operator()(void* node) const {
        if (node) plist_free(static_cast<plist_t>(node));
    }
};
using PlistHolder = std::unique_ptr<void, PlistDeleter>;

} // namespace

// ---------------------------------------------------------------------------
// URLs

std::string QVFileURLStringFromPath(const std::string& path) {
    static const char* allowed = "!$&'()*+,-./0123456789:=@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz~";
    static const char* hex = "0123456789ABCDEF";
    std::string out = "file://";
    out.reserve(out.size() + path.size());
    for (unsigned char c : path) {
        if (c != 0 && std::strchr(allowed, c)) {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0x0F];
        }
    }
    return out;
}

std::optional<std::string> QVPathFromFileURLString(const std::string& url) {
    if (url.size() < 7) return std::nullopt;
    std::string scheme = url.substr(0, 7);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
    if (scheme != "file://") return std::nullopt;
    size_t slash = url.find('/', 7);
    if (slash == std::string::npos) return std::nullopt;
    std::string host = url.substr(7, slash - 7);
    if (!host.empty() && host != "localhost") return std::nullopt;
    std::string path;
    path.reserve(url.size() - slash);
    for (size_t i = slash; i < url.size(); ++i) {
        char c = url[i];
        if (c == '?' || c == '#') return std::nullopt;
        if (c != '%') {
            path += c;
            continue;
        }
        if (i + 2 >= url.size()) return std::nullopt;
        int hi = hexDigit(url[i + 1]), lo = hexDigit(url[i + 2]);
        if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return std::nullopt;
        path += char(hi * 16 + lo);
        i += 2;
    }
    return path;
}

// ---------------------------------------------------------------------------
// Registry

bool QVRegisterArchivableClass(const std::string& name, KeyedDecodeFunction decode,
                               std::vector<std::string> superclasses) {
    if (name.empty() || !decode || reservedClassNames().count(name) || !isPlistString(name)) return false;
    for (const auto& s : superclasses)
        if (s.empty() || !isPlistString(s)) return false;
    ClassEntry entry;
    entry.decode = std::move(decode);
    entry.classes.push_back(name);
    for (auto& s : superclasses) entry.classes.push_back(std::move(s));
    entry.classes.push_back("NSObject");
    std::lock_guard<std::mutex> lock(registryMutex());
    registry()[name] = std::move(entry);
    return true;
}

bool QVIsArchivableClassRegistered(const std::string& name) { return lookupClass(name).has_value(); }

// ---------------------------------------------------------------------------
// Writing

namespace detail {

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
            node = nullptr;  // owned by `top` now
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
        case Value::Kind::Bool: return add(plist_new_bool(value.toBool()));
        case Value::Kind::Int: return add(plist_new_uint(static_cast<uint64_t>(value.toInt())));
        case Value::Kind::Real: return add(plist_new_real(value.toDouble()));
        case Value::Kind::String: return encodeString(value.toString());
        case Value::Kind::Data: {
            const Bytes& d = value.toData();
            return add(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
        }
        case Value::Kind::URL: return encodeURL(value.toURLPath());
        case Value::Kind::Date: {
            plist_t dict = plist_new_dict();
            plist_dict_set_item(dict, "NS.time", plist_new_real(value.toDate() - kSecondsFrom1970To2001));
            plist_dict_set_item(dict, "$class", plist_new_uid(classUID(kClassNSDate, {kClassNSDate, "NSObject"})));
            return add(dict);
        }
        case Value::Kind::Array: return encodeArray(value.toArray());
        case Value::Kind::Dict: return encodeDict(value.toDict());
        case Value::Kind::Object:
        case Value::Kind::WeakObject: return encodeObject(value.toObject());
        default: fail("a value of unknown kind"); return 0;
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
            plist_dict_set_item(dict, "$class",
                                plist_new_uid(classUID(kClassNSMutableArray,
                                                       {kClassNSMutableArray, "NSArray", "NSObject"})));
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
    std::vector<std::shared_ptr<void>> keepAlive_;  // so that no identity is reused mid-way
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

// ---------------------------------------------------------------------------
// Reading

namespace detail {

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
        if (depth_ > QVKeyedArchiveMaxDepth) {  // leaves count as a level here, not when writing
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
        case PLIST_STRING: return readString(node, objectName(index));
        case PLIST_BOOLEAN: {
            uint8_t b = 0;
            plist_get_bool_val(node, &b);
            return Value(b != 0);
        }
        case PLIST_UINT: {
            uint64_t u = 0;
            plist_get_uint_val(node, &u);
            return Value(static_cast<long long>(static_cast<int64_t>(u)));
        }
        case PLIST_REAL: {
            double d = 0;
            plist_get_real_val(node, &d);
            return Value(d);
        }
        case PLIST_DATA: return readData(node);
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return Value::date(double(sec) + double(usec) / 1e6 + kSecondsFrom1970To2001);
        }
        case PLIST_DICT: return decodeInstance(index, node);
        default: fail(objectName(index) + " has a type that no object has"); return {};
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

    static Value readData(plist_t node) {
        char* d = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &d, &length);
        Bytes bytes(reinterpret_cast<const uint8_t*>(d), reinterpret_cast<const uint8_t*>(d) + (d ? length : 0));
        free(d);
        return Value(std::move(bytes));
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
            if (d && plist_get_node_type(d) == PLIST_DATA) return readData(d);
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
    std::vector<uint8_t> state_;  // 0 unread, 1 being read, 2 read
    std::vector<Value> cache_;
    std::unordered_map<uint64_t, std::string> classNames_;
    int depth_ = 0;
    std::string failure_;
};

} // namespace detail

void* KeyedDecoder::node(const std::string& key) const {
    return plist_dict_get_item(static_cast<plist_t>(dict_), escapeKey(key).c_str());
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

std::optional<Value> unarchive(const Bytes& data, std::string& why) {
    if (data.size() > std::numeric_limits<uint32_t>::max()) {
        why = "too large";
        return std::nullopt;
    }
    why = PlistShapeCheck(data.data(), data.size()).run();
    if (!why.empty()) return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(data.data()), static_cast<uint32_t>(data.size()), &parsed);
    PlistHolder holder(parsed);
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

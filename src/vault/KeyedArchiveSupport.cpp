#include "vault/KeyedArchiveSupport.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>

namespace qv {

namespace detail {

namespace {

const std::set<std::string>& reservedClassNames() {
    static const std::set<std::string> names = {
        "NSObject", "NSDictionary", "NSMutableDictionary", "NSArray", "NSMutableArray", "NSURL",
        "NSDate",   "NSString",     "NSMutableString",     "NSData",  "NSMutableData",
    };
    return names;
}

std::mutex& registryMutex() {
    static std::mutex m;
    return m;
}
std::map<std::string, ClassEntry>& registry() {
    static std::map<std::string, ClassEntry> r;
    return r;
}

} // namespace

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
        if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

bool isPlistString(const std::string& s) { return s.find('\0') == std::string::npos && isValidUTF8(s); }

std::string escapeKey(const std::string& key) { return !key.empty() && key[0] == '$' ? "$" + key : key; }

std::optional<ClassEntry> lookupClass(const std::string& name) {
    std::lock_guard<std::mutex> lock(registryMutex());
    auto it = registry().find(name);
    if (it == registry().end()) return std::nullopt;
    return it->second;
}

} // namespace detail

using detail::ClassEntry;
using detail::isPlistString;

bool QVRegisterArchivableClass(const std::string& name, KeyedDecodeFunction decode,
                               std::vector<std::string> superclasses) {
    if (name.empty() || !decode || detail::reservedClassNames().count(name) || !isPlistString(name)) return false;
    for (const auto& s : superclasses)
        if (s.empty() || !isPlistString(s)) return false;
    ClassEntry entry;
    entry.decode = std::move(decode);
    entry.classes.push_back(name);
    for (auto& s : superclasses) entry.classes.push_back(std::move(s));
    entry.classes.push_back("NSObject");
    std::lock_guard<std::mutex> lock(detail::registryMutex());
    detail::registry()[name] = std::move(entry);
    return true;
}

bool QVIsArchivableClassRegistered(const std::string& name) { return detail::lookupClass(name).has_value(); }

} // namespace qv

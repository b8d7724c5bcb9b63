#pragma once
// What the keyed archive's writer and reader share: the epoch of archived dates
// (vault/PlistScalars.h), the checks on text, the escaping of field names, the registry of archivable
// classes and an owner for libplist nodes. Internal to the keyed archive.
#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vault/KeyedArchive.h"
#include "vault/PlistScalars.h"

namespace qv::detail {

bool isValidUTF8(const std::string& s);
// A string the property list can carry unchanged: UTF-8 without NUL.
bool isPlistString(const std::string& s);
// Keys of an object's own fields: "$" marks the archive's own keys, so a field
// name that begins with it gets one more.
std::string escapeKey(const std::string& key);

struct ClassEntry {
    KeyedDecodeFunction decode;
    std::vector<std::string> classes; // "$classes": the class, its superclasses, NSObject
};
std::optional<ClassEntry> lookupClass(const std::string& name);

struct PlistDeleter {
    void operator()(void* node) const {
        if (node) plist_free(static_cast<plist_t>(node));
    }
};
using PlistHolder = std::unique_ptr<void, PlistDeleter>;

} // namespace qv::detail

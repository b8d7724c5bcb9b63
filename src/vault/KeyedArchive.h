#pragma once
// Keyed archives: an object graph of Values flattened into the keyed-archive layout
//   {"$archiver": "NSKeyedArchiver", "$version": 100000,
//    "$top": {"root": UID}, "$objects": ["$null", ...]}
// stored as a binary property list (libplist). Every array, dictionary, URL, date
// and object is one entry of $objects, referenced by UID, so that an object
// reached twice is written once and comes back shared. Strings and numbers are
// plain property-list values; dictionaries, arrays, URLs and dates use the
// classes NSMutableDictionary, NSMutableArray, NSURL and NSDate, and our own
// objects the classes registered below.
//
// Reading never trusts its input: malformed property lists, wrong types, missing
// keys, references out of range, reference cycles, deep nesting and unknown
// classes all give no result and an error (application domain, code 1001).
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"
#include "vault/FileURL.h"
#include "vault/Value.h"

namespace qv {

// The layout version written under "$version"; archives of any other version are refused.
inline constexpr int64_t QVKeyedArchiveVersion = 100000;
// The value of "$archiver"; archives made by anything else are refused.
inline constexpr const char* QVKeyedArchiverName = "NSKeyedArchiver";
// How deep objects may nest inside each other, both ways.
inline constexpr int QVKeyedArchiveMaxDepth = 256;

// The archive of `root`, or nothing when the graph holds something that can't be
// archived (an object of an unregistered class, a cycle, a string that is not
// UTF-8 or holds a NUL, a URL that is not an absolute path); the error says which.
std::optional<Bytes> archivedDataWithRootObject(const Value& root, QVError* error = nullptr);

// The root object of an archive (a null Value when the root is $null), or nothing
// and an error when the data isn't a keyed archive we can read.
std::optional<Value> unarchiveObjectWithData(const Bytes& data, QVError* error);

namespace detail {
class ArchiveWriter;
class ArchiveReader;
} // namespace detail

// Handed to Object::encodeWithCoder: writes the fields of one object.
class KeyedEncoder {
public:
    // Stored by reference (UID), so shared objects stay shared.
    void encodeValue(const Value& value, const std::string& key);
    // Stored inline in the object's own entry.
    void encodeBool(bool value, const std::string& key);
    void encodeInt(int64_t value, const std::string& key);
    void encodeDouble(double value, const std::string& key);
    // Gives up the whole archive with this reason.
    void fail(const std::string& reason);

private:
    friend class detail::ArchiveWriter;
    KeyedEncoder(detail::ArchiveWriter& writer, void* dict) : writer_(writer), dict_(dict) {}
    void setInline(void* node, const std::string& key);
    detail::ArchiveWriter& writer_;
    void* dict_;  // the plist dictionary of the object being written
};

// Handed to a registered decode function: reads the fields of one object.
class KeyedDecoder {
public:
    const std::string& className() const { return className_; }
    bool containsValueForKey(const std::string& key) const;
    // A referenced value; null when the key is absent. A key that holds something
    // else than a reference makes the whole archive fail.
    Value decodeValue(const std::string& key);
    // Inline values; absent keys read as false / 0. Wrong types fail the archive.
    bool decodeBool(const std::string& key);
    int64_t decodeInt(const std::string& key);
    double decodeDouble(const std::string& key);
    // Gives up the whole archive with this reason.
    void fail(const std::string& reason);
    bool failed() const;

private:
    friend class detail::ArchiveReader;
    KeyedDecoder(detail::ArchiveReader& reader, void* dict, std::string className)
        : reader_(reader), dict_(dict), className_(std::move(className)) {}
    void* node(const std::string& key) const;
    detail::ArchiveReader& reader_;
    void* dict_;
    std::string className_;
};

// Makes the object of a registered class from its fields; nullptr (or a call to
// fail) refuses the archive.
using KeyedDecodeFunction = std::function<ObjectRef(KeyedDecoder&)>;

// Registers an archivable class. `superclasses` go into "$classes" after the class
// itself and before "NSObject". An object can only be archived when its class is
// registered, so that everything written can be read back. Registering from a
// static initialiser is fine:
//   static const bool registered = QVRegisterArchivableClass("DBSubdb", decode);
// Returns false (and changes nothing) for an empty name or a name that the archive
// itself uses (NSMutableDictionary, NSURL, ...). Registering a name again replaces it.
bool QVRegisterArchivableClass(const std::string& name, KeyedDecodeFunction decode,
                               std::vector<std::string> superclasses = {});
bool QVIsArchivableClassRegistered(const std::string& name);

} // namespace qv

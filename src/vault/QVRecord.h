#pragma once
// Records: the one dictionary-backed record class for all persistent and live data
// about folders. A record's fields are not compiled in; they come from a schema
// (a table of field names, each atomic or not, see vault/Schemas.h) and live in a
// shared dictionary of field name to box (QVRecordValue). A field added to a schema
// later appears by itself in records loaded from old files (QVRecordUpgrade), and
// any field can be observed by name.
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "toolkit/QVError.h"
#include "vault/Value.h"

namespace qv {

class QVRecord;
using QVRecordRef = std::shared_ptr<QVRecord>;

// A boxed field: the value, whether accesses take the box's recursive lock, and
// the lock. Hash, equality and description are those of the value.
// Archived as {"obj": value, "atomic": flag}; the lock is made anew on reading.
class QVRecordValue : public Object {
public:
    explicit QVRecordValue(bool atomic = false, Value obj = Value());

    std::string className() const override { return "QVRecordValue"; }
    bool encodeWithCoder(KeyedEncoder& coder) const override;

    bool atomic() const { return atomic_; }
    // Reads and writes take the lock when the box is atomic.
    Value obj() const;
    void setObj(const Value& value);
    // The box's recursive lock, for a walk that must see one state of the field.
    void lock() const { lock_.lock(); }
    void unlock() const { lock_.unlock(); }

    // A new box with the same atomic flag and a copy of the value (a new array or
    // dictionary with the same items; other values as they are), read under the lock
    // when atomic.
    std::shared_ptr<QVRecordValue> copy() const;

    size_t hash() const;
    bool isEqual(const QVRecordValue& other) const;
    std::string description() const;

private:
    mutable std::recursive_mutex lock_;
    const bool atomic_;
    Value obj_;
};
using QVRecordValueRef = std::shared_ptr<QVRecordValue>;

// Told before and after a field of a record changes through setValueForKey
// (or a key path of two or more parts that ends on the record).
class QVRecordObserver {
public:
    virtual ~QVRecordObserver() = default;
    virtual void recordWillChangeValueForKey(const QVRecord& record, const std::string& key) = 0;
    virtual void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) = 0;
};

// One field of a schema.
struct QVSchemaField {
    std::string_view name;
    bool atomic = false;
};
// A schema: a name and its declared fields.
struct QVSchema {
    std::string_view name;
    std::span<const QVSchemaField> fields;
};

class QVRecord : public Object {
public:
    // A record over a new, empty dictionary: it has no fields until filled.
    QVRecord();
    // initWithDict: the dictionary is kept, not copied (null gives a new empty one).
    explicit QVRecord(DictRef dict);
    static QVRecordRef initWithDict(DictRef dict) { return std::make_shared<QVRecord>(std::move(dict)); }

    std::string className() const override { return "QVRecord"; }
    bool encodeWithCoder(KeyedEncoder& coder) const override;

    // The field dictionary itself: field name to QVRecordValue.
    DictRef dict() const { return dict_; }
    // A new dictionary of field name to unboxed value. Every field must hold a value:
    // a null field makes this fail, giving nullptr and error 1001 that names the
    // field, rather than a dictionary with a hole in it.
    DictRef dictCopy(QVError* error = nullptr) const;

    // The box of a field; null for a name the record doesn't have.
    QVRecordValueRef boxForKey(const std::string& key) const;
    // A name without a box reads as null.
    Value valueForKey(const std::string& key) const;
    // Observers hear of every write, also of a name without a box, which is
    // dropped: records do not grow new fields by being written.
    void setValueForKey(const Value& value, const std::string& key);
    void setNilValueForKey(const std::string& key) { setValueForKey(Value(), key); }
    // Dotted paths. The first part's box is locked (when atomic) for the whole walk.
    // Reading walks valueForKey through records and dictionaries. Writing a
    // one-part path sets the box directly and tells no observer; a longer path
    // walks to the last record and calls setValueForKey on it, whose observers hear.
    Value valueForKeyPath(const std::string& keyPath) const;
    void setValueForKeyPath(const Value& value, const std::string& keyPath);

    // A new record over the same dictionary: the two share their boxes, and a
    // change through one shows in the other. Observers are not copied.
    QVRecordRef copy() const { return std::make_shared<QVRecord>(dict_); }

    // Observers are held weakly, per record object and field name.
    void addObserver(const std::shared_ptr<QVRecordObserver>& observer, const std::string& key);
    void removeObserver(const QVRecordObserver* observer, const std::string& key);
    void willChangeValueForKey(const std::string& key) const;
    void didChangeValueForKey(const std::string& key) const;

    size_t hash() const;
    bool isEqual(const QVRecord& other) const;
    std::string description() const;

private:
    enum class Moment { Will, Did };
    void notify(Moment moment, const std::string& key) const;

    DictRef dict_;
    mutable std::mutex observersMutex_;
    std::multimap<std::string, std::weak_ptr<QVRecordObserver>> observers_;
};

// A new record with every field of the schema, each boxed with the schema's atomic
// flag and holding null.
QVRecordRef QVRecordForProtocol(const QVSchema& schema);
// Adds a box for each schema field that the dictionary has no entry for (an entry
// holding a null box counts as present); a new dictionary when given null.
DictRef QVRecordFillDict(DictRef dict, const QVSchema& schema);
// Gives an existing record the fields its schema has gained, empty. The dictionary
// has no lock: do it before the record is handed to other threads.
void QVRecordUpgrade(const QVRecordRef& record, const QVSchema& schema);

// Equality of values that looks into records and boxes (by content) where Value's
// own equality compares objects by identity.
bool QVRecordValuesEqual(const Value& a, const Value& b);

} // namespace qv

#include "vault/Schemas.h"

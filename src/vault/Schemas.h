#pragma once
// The five record schemas, their named accessors, and the functions that make
// new records of them.
#include <cstdint>
#include <string>

#include "toolkit/OperationQueue.h"
#include "vault/QVRecord.h"

namespace qv {

// ---------------------------------------------------------------------------
// Schemas. Only FolderFace's `locked` and `opCanceled` are atomic: tasks on other
// threads write them while the interface reads them.

inline constexpr QVSchemaField QVFolderFields[] = {
    {"uuid", false},          {"storage", false},        {"diskinfo", false},  {"subdb", false},
    {"mountpoint", false},    {"autounlock", false},     {"encrypted", false}, {"password", false},
    {"folderSize", false},    {"position", false},       {"autolock", false},  {"lockActions", false},
    {"unlockActions", false}, {"mountpointMode", false},
};
inline constexpr QVSchemaField QVFolderFaceFields[] = {
    {"folder", false},          {"subdb", false},           {"locked", true},
    {"progressPercentage", false}, {"progressIndeterminate", false}, {"progressAnimate", false},
    {"statusText", false},      {"statusColor", false},     {"actionIcon", false},
    {"actionIconAlt", false},   {"opCanceled", true},       {"cancelable", false},
    {"currentOp", false},       {"spotlightStatus", false}, {"lockErrorDate", false},
};
inline constexpr QVSchemaField QVStorageFields[] = {{"name", false}, {"url", false}};
inline constexpr QVSchemaField QVDiskInfoFields[] = {
    {"url", false}, {"encryption", false}, {"filesystem", false}, {"capacity", false}};
inline constexpr QVSchemaField QVFolderActionFields[] = {
    {"action", false}, {"url", false}, {"parameter", false}, {"priority", false}};

// A protected folder; persisted in its Folder Set.
inline constexpr QVSchema Folder{"Folder", QVFolderFields};
// A folder on show with its live state; never persisted.
inline constexpr QVSchema FolderFace{"FolderFace", QVFolderFaceFields};
// Where a folder's images live; persisted inside a Folder.
inline constexpr QVSchema Storage{"Storage", QVStorageFields};
// A folder's image; persisted inside a Folder.
inline constexpr QVSchema DiskInfo{"DiskInfo", QVDiskInfoFields};
// Something to do at locking or unlocking; persisted inside a Folder.
inline constexpr QVSchema FolderAction{"FolderAction", QVFolderActionFields};

// ---------------------------------------------------------------------------
// Named accessors: thin views over a record, `x()` reading and `setX(v)` writing
// the field "x" through valueForKey / setValueForKey (so observers hear). They deal
// in Values; a view over no record reads null and ignores writes.

#define QV_RECORD_FIELD(field, Field)                                                                   \
    Value field() const { return record ? record->valueForKey(#field) : Value(); }                      \
    void set##Field(const Value& value) const {                                                         \
        if (record) record->setValueForKey(value, #field);                                              \
    }

struct FolderRef {
    QVRecordRef record;
    explicit operator bool() const { return record != nullptr; }
    QV_RECORD_FIELD(uuid, Uuid)
    QV_RECORD_FIELD(storage, Storage)
    QV_RECORD_FIELD(diskinfo, Diskinfo)
    QV_RECORD_FIELD(subdb, Subdb)
    QV_RECORD_FIELD(mountpoint, Mountpoint)
    QV_RECORD_FIELD(autounlock, Autounlock)
    QV_RECORD_FIELD(encrypted, Encrypted)
    QV_RECORD_FIELD(password, Password)
    QV_RECORD_FIELD(folderSize, FolderSize)
    QV_RECORD_FIELD(position, Position)
    QV_RECORD_FIELD(autolock, Autolock)
    QV_RECORD_FIELD(lockActions, LockActions)
    QV_RECORD_FIELD(unlockActions, UnlockActions)
    // The folder's own permission bits, kept while it is made read-only between
    // mounts; null while it never was.
    QV_RECORD_FIELD(mountpointMode, MountpointMode)
};

struct FolderFaceRef {
    QVRecordRef record;
    explicit operator bool() const { return record != nullptr; }
    QV_RECORD_FIELD(folder, Folder)
    QV_RECORD_FIELD(subdb, Subdb)
    QV_RECORD_FIELD(locked, Locked)
    QV_RECORD_FIELD(progressPercentage, ProgressPercentage)
    QV_RECORD_FIELD(progressIndeterminate, ProgressIndeterminate)
    QV_RECORD_FIELD(progressAnimate, ProgressAnimate)
    QV_RECORD_FIELD(statusText, StatusText)
    QV_RECORD_FIELD(statusColor, StatusColor)
    QV_RECORD_FIELD(actionIcon, ActionIcon)
    QV_RECORD_FIELD(actionIconAlt, ActionIconAlt)
    QV_RECORD_FIELD(opCanceled, OpCanceled)
    QV_RECORD_FIELD(cancelable, Cancelable)
    // The task running on the folder; a live object, never archived.
    OperationRef currentOp() const;
    void setCurrentOp(const OperationRef& operation) const;
    QV_RECORD_FIELD(spotlightStatus, SpotlightStatus)
    QV_RECORD_FIELD(lockErrorDate, LockErrorDate)
};

struct StorageRef {
    QVRecordRef record;
    explicit operator bool() const { return record != nullptr; }
    QV_RECORD_FIELD(name, Name)
    QV_RECORD_FIELD(url, Url)
};

struct DiskInfoRef {
    QVRecordRef record;
    explicit operator bool() const { return record != nullptr; }
    QV_RECORD_FIELD(url, Url)
    QV_RECORD_FIELD(encryption, Encryption)
    QV_RECORD_FIELD(filesystem, Filesystem)
    QV_RECORD_FIELD(capacity, Capacity)
};

struct FolderActionRef {
    QVRecordRef record;
    explicit operator bool() const { return record != nullptr; }
    QV_RECORD_FIELD(action, Action)
    QV_RECORD_FIELD(url, Url)
    QV_RECORD_FIELD(parameter, Parameter)
    QV_RECORD_FIELD(priority, Priority)
};

#undef QV_RECORD_FIELD

// ---------------------------------------------------------------------------
// A colour with components from 0 to 1, archived as "red", "green", "blue", "alpha".

class QVColor : public Object {
public:
    QVColor(double red, double green, double blue, double alpha)
        : red_(red), green_(green), blue_(blue), alpha_(alpha) {}
    double red() const { return red_; }
    double green() const { return green_; }
    double blue() const { return blue_; }
    double alpha() const { return alpha_; }
    std::string className() const override { return "QVColor"; }
    bool encodeWithCoder(KeyedEncoder& coder) const override;

private:
    double red_, green_, blue_, alpha_;
};

// A new colour for a face's status line: grey 0.345 on each channel, opaque.
Value QVDefaultStatusColor();

// ---------------------------------------------------------------------------
// New records

// A new uppercase UUID string ("1B4E28BA-2FA1-11D2-883F-0016D3CCA427").
std::string QVNewUUIDString();

// A new Folder: a new `uuid`, the storage and mountpoint, `autounlock` and
// `encrypted` false, `autolock` 0, and two new empty action lists.
QVRecordRef QVFolderCreate(const QVRecordRef& storage, const URLValue& mountpoint);

// A Folder's `mountpoint` as a path without trailing slashes; "" without one.
std::string QVFolderMountpointPath(const QVRecordRef& folder);


// A new Storage.
QVRecordRef QVStorageCreate(const std::string& name, const URLValue& url);

// The order in which folder actions run, by action number: 1 gives 99, 2 gives 1,
// 3 gives 0, 4 gives 98, any other 0.
int64_t QVFolderActionPriority(int64_t action);
// A new FolderAction with the action, URL and priority; `parameter` null.
QVRecordRef QVFolderActionCreate(const URLValue& url, int64_t action);

} // namespace qv

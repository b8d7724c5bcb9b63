#include "vault/DBSubdb.h"

#include <cstring>

#include "toolkit/Log.h"
#include "vault/DBMaster.h"
#include "vault/KeyedArchive.h"
#include "vault/ListHelpers.h"
#include "vault/QVCrypto.h"
#include "vault/QVRecord.h"
#include "vault/SetPadding.h"

namespace qv {

namespace {

std::string mountpointPath(const Value& folder) {
    auto record = folder.as<QVRecord>();
    return record ? record->valueForKey("mountpoint").toURLPath() : std::string();
}

// A folder's reference to its set is archived as an empty placeholder, and
// decodes to an empty set that loading replaces.
const bool kRegistered = QVRegisterArchivableClass(
    "DBSubdb", [](KeyedDecoder&) -> ObjectRef { return std::make_shared<DBSubdb>(); });

} // namespace

bool DBSubdb::encodeWithCoder(KeyedEncoder& coder) const {
    (void)kRegistered;
    coder.encodeValue(Value(), "blah");
    return true;
}

void QVRecordSetSubdb(const QVRecordRef& folder, const DBSubdbRef& subdb) {
    // Weak: the set owns its folders; whoever works on a folder also holds its
    // face, whose `subdb` keeps the set (and its masked password) alive.
    folder->setValueForKey(Value::weak(subdb), "subdb");
}

DBSubdbRef QVRecordGetSubdb(const QVRecordRef& folder) { return folder->valueForKey("subdb").as<DBSubdb>(); }

std::shared_ptr<DBSubdb> DBSubdb::subdbWithFolders(const std::vector<QVRecordRef>& folders, const std::string& pass) {
    auto subdb = std::make_shared<DBSubdb>();
    auto list = std::make_shared<Array>();
    for (const auto& folder : folders) list->push_back(Value(folder));
    subdb->subdb_ = std::make_shared<Dict>();
    (*subdb->subdb_)[QVSDBFoldersKey] = Value(list);
    (*subdb->subdb_)[QVSDBVersionKey] = Value(QVSDBVersion);
    subdb->setPassword(pass);
    return subdb;
}

std::shared_ptr<DBSubdb> DBSubdb::subdbWithData(const Bytes& data, const std::shared_ptr<DBMaster>& master,
                                                const std::string& pass, QVError* error) {
    auto decrypted = QVCrypto::decryptWithString(data, pass);
    if (!decrypted) {
        QV_LOG_FAILED("!decrypted");
        QVSetAppError(error, QVErrorFailed, "Internal error decrypting database, please see system log for details.");
        return nullptr;
    }
    auto root = unarchiveObjectWithData(*decrypted, nullptr);
    QVWipe(*decrypted);
    DictRef dict = root ? root->toDict() : nullptr;
    Value folders = dict ? QVDictGet(*dict, QVSDBFoldersKey) : Value();
    bool wellFormed = dict && (folders.isNull() || folders.toArray());
    if (wellFormed && folders.toArray())
        for (const auto& folder : *folders.toArray())
            if (!folder.as<QVRecord>()) wellFormed = false;
    if (!wellFormed) {
        QV_LOG_FAILED("!dict");
        QVSetAppError(error, QVErrorFailed,
                      "Internal error unarchiving database, please see system log for details.");
        return nullptr;
    }
    if (folders.isNull()) (*dict)[QVSDBFoldersKey] = Value::newArray();
    auto subdb = std::make_shared<DBSubdb>();
    subdb->subdb_ = std::make_shared<Dict>(*dict);
    // Padding is made afresh at each save, never carried along.
    QVDropSetPadding(*subdb->subdb_);
    subdb->masterdb_ = master;
    subdb->setPassword(pass);
    return subdb;
}

void DBSubdb::setPassword(const std::string& password) {
    // A password is handed around as a C string: an embedded NUL ends it.
    const size_t n = std::strlen(password.c_str());
    Bytes pad = QVCrypto::randomDataOfLength(n, 0, 255);
    Bytes masked(n);
    for (size_t i = 0; i < n; ++i) masked[i] = static_cast<uint8_t>(password[i]) ^ pad[i];
    QVWipe(opw_);
    xorpw_ = std::move(pad);
    opw_ = std::move(masked);
}

void DBSubdb::withPassword(const std::function<void(std::string& password)>& callback) const {
    withPasswordBuffer([&](const std::shared_ptr<std::string>& password) { callback(*password); });
}

void DBSubdb::withPasswordBuffer(
    const std::function<void(const std::shared_ptr<std::string>& password)>& callback) const {
    const size_t n = opw_.size();
    auto password = std::make_shared<std::string>(n, '\0');
    for (size_t i = 0; i < n; ++i) (*password)[i] = static_cast<char>(opw_[i] ^ xorpw_[i]);
    password->resize(std::strlen(password->c_str()));
    const size_t length = password->size();
    callback(password);
    // The wipe: whatever the callback kept now holds random characters.
    std::string random = QVCrypto::randomPasswordOfLength(length);
    if (password->size() == length)
        password->replace(0, length, random);
    else
        QVWipe(*password);
    QVWipe(random);
}

int32_t DBSubdb::addClient() { return clientCount_.fetch_add(1) + 1; }
int32_t DBSubdb::removeClient() { return clientCount_.fetch_sub(1) - 1; }

ArrayRef DBSubdb::folderArray() {
    Value list = QVDictGet(*subdb_, QVSDBFoldersKey);
    if (!list.toArray()) {
        list = Value::newArray();
        (*subdb_)[QVSDBFoldersKey] = list;
    }
    return list.toArray();
}

bool DBSubdb::addFolder(const QVRecordRef& folder) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    ArrayRef list = folderArray();
    const std::string path = folder->valueForKey("mountpoint").toURLPath();
    bool added = false;
    if (list->empty()) {
        list->push_back(Value(folder));
        added = true;
    } else {
        added = addIfAllSatisfy(*list, Value(folder),
                                [&](const Value& existing) { return mountpointPath(existing) != path; });
    }
    if (added) QVRecordSetSubdb(folder, shared_from_this());
    return added;
}

bool DBSubdb::removeFolderWithMountpoint(const std::string& mountpointPathToRemove) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    return removeIfAny(*folderArray(),
                       [&](const Value& folder) { return mountpointPath(folder) == mountpointPathToRemove; });
}

QVRecordRef DBSubdb::folderForMountpath(const std::string& path) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    for (const auto& folder : *folderArray())
        if (mountpointPath(folder) == path) return folder.as<QVRecord>();
    return nullptr;
}

std::vector<QVRecordRef> DBSubdb::folders() {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    std::vector<QVRecordRef> out;
    for (const auto& folder : *folderArray())
        if (auto record = folder.as<QVRecord>()) out.push_back(record);
    return out;
}

bool DBSubdb::save(QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    if (!masterdb_) {
        QV_LOG_FAILED("!masterdb");
        QVSetAppError(error, QVErrorFailed, "The Folder Set belongs to no database.");
        return false;
    }
    return masterdb_->saveSubDB(shared_from_this(), error);
}

} // namespace qv

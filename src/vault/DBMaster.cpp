#include "vault/DBMaster.h"

#include <chrono>
#include <filesystem>

#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/KeyedArchive.h"
#include "vault/Locations.h"
#include "vault/QVCrypto.h"
#include "vault/QVRecord.h"
#include "vault/SetPadding.h"

namespace qv {

const char* const QVLookupPlaintext =
    "Lorem ipsum dolor sit amet, consectetur adipisicing elit, sed do eiusmod tempor incididunt ut labore et "
    "dolore magna aliqua. Ut enim ad minim veniam, quis nostrud exercitation ullamco laboris nisi ut aliquip ex "
    "ea commodo consequat. Duis aute irure dolor in reprehenderit in voluptate velit esse cillum dolore eu fugiat "
    "nulla pariatur. Excepteur sint occaecat cupidatat non proident, sunt in culpa qui officia deserunt mollit "
    "anim id est laborum.";

namespace {

Bytes utf8(const std::string& s) { return Bytes(s.begin(), s.end()); }

double nowSince1970() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

// The root must be a dictionary whose known keys have the types the program
// writes; anything else is a damaged file, refused before any use.
bool rootIsWellFormed(const Dict& root) {
    Value version = QVDictGet(root, QVMDBVersionKey);
    if (!version.isNull() && !version.isNumber()) return false;
    Value created = QVDictGet(root, QVMDBParamCDKey);
    if (!created.isNull() && !created.isNumber()) return false;
    Value params = QVDictGet(root, QVMDBParamsKey);
    if (!params.isNull() && !params.toDict()) return false;
    Value subdbs = QVDictGet(root, QVMDBSubdbsKey);
    if (!subdbs.isNull()) {
        if (!subdbs.toDict()) return false;
        for (const auto& [key, blob] : *subdbs.toDict())
            if (!key.isData || !blob.isData()) return false;
    }
    return true;
}

} // namespace

std::shared_ptr<DBMaster> DBMaster::initWithMasterDBURL(const std::string& url, bool createIfNecessary,
                                                        QVError* error) {
    std::shared_ptr<DBMaster> master(new DBMaster());
    std::error_code reachError;
    bool reachable = std::filesystem::exists(url, reachError);
    if (reachable) {
        master->masterdb_ = unarchiveMasterDBFromURL(url, error);
        if (!master->masterdb_) return nullptr;
    } else {
        master->masterdb_ = std::make_shared<Dict>();
        (*master->masterdb_)[QVMDBVersionKey] = Value(QVMDBCurrentVersion);
        if (!createIfNecessary)
            QV_LOG_WARN("not reachable '" + url + "': " +
                        (reachError ? reachError.message() : std::string("The file doesn't exist.")));
    }
    if (QVDictGet(*master->masterdb_, QVMDBParamCDKey).isNull())
        (*master->masterdb_)[QVMDBParamCDKey] = Value(nowSince1970());
    master->databaseURL_ = url;
    return master;
}

DictRef DBMaster::unarchiveMasterDBFromURL(const std::string& url, QVError* error) {
    QVError readError;
    auto data = QVReadFile(url, &readError);
    if (!data) {
        QV_LOG_ERROR("failed to read db from '" + url + "': " + readError.description);
        QVSetError(error, QVAppErrorDomain(), readError.code, "Failed to unarchive database");
        return nullptr;
    }
    QVError archiveError;
    auto root = unarchiveObjectWithData(*data, &archiveError);
    if (!root || !root->toDict() || !rootIsWellFormed(*root->toDict())) {
        QV_LOG_ERROR("failed to read db from '" + url + "': " +
                     (archiveError.description.empty() ? std::string("not a master database")
                                                       : archiveError.description));
        QVSetAppError(error, QVErrorFailed, "Failed to unarchive database");
        return nullptr;
    }
    // A shallow copy of the root; the nested dictionaries come out of the archive mutable.
    return std::make_shared<Dict>(*root->toDict());
}

bool DBMaster::archiveMasterDBToURL(const std::string& url, QVError* error) {
    auto data = archivedDataWithRootObject(Value(masterdb_));
    if (!data) {
        QV_LOG_FAILED("!data");
        QVSetAppError(error, QVErrorFailed, "Failed to archive database");
        return false;
    }
    QVError writeError;
    if (!QVWriteFileAtomically(url, *data, &writeError)) {
        QV_LOG_ERROR("failed to write db to '" + url + "': " + writeError.description);
        QVSetError(error, QVAppErrorDomain(), writeError.code, "Failed to archive database");
        return false;
    }
    return true;
}

int32_t DBMaster::version() const { return static_cast<int32_t>(QVDictGet(*masterdb_, QVMDBVersionKey).toInt()); }
void DBMaster::setVersion(int32_t version) { (*masterdb_)[QVMDBVersionKey] = Value(version); }
double DBMaster::creationDate() const { return QVDictGet(*masterdb_, QVMDBParamCDKey).toDouble(); }

DictRef DBMaster::subdbsDict() const { return QVDictGet(*masterdb_, QVMDBSubdbsKey).toDict(); }

size_t DBMaster::subDBCount() const {
    DictRef subdbs = subdbsDict();
    return subdbs ? subdbs->size() : 0;
}

std::optional<Bytes> DBMaster::lookupForPass(const std::string& pass, bool forLoading, QVError* error) {
    const std::string text(QVLookupPlaintext);
    Bytes password = utf8(pass);
    auto lookup = QVCrypto::encrypt(utf8(text), password, QVDictGet(*masterdb_, QVMDBParamsKey).toDict());
    QVWipe(password);
    if (!lookup)
        QVSetAppError(error, QVErrorFailed,
                      forLoading ? "Internal error retrieving database, see system log for more info."
                                 : "Internal error storing database, see system log for more info.");
    return lookup;
}

bool DBMaster::hasSubDbWithPassword(const std::string& password) {
    DBSubdbRef subdb = getSubDBWithPassword(password, nullptr);
    if (subdb) returnSubDB(subdb);
    return subdb != nullptr;
}

DBSubdbRef DBMaster::getSubDBWithPassword(const std::string& password, QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    auto lookup = lookupForPass(password, true, error);
    if (!lookup) {
        QV_LOG_FAILED("!lookup");
        return nullptr;
    }
    if (loadedSubdbs_) {
        if (auto cached = QVDictGet(*loadedSubdbs_, *lookup).as<DBSubdb>()) {
            cached->addClient();
            return cached;
        }
    }
    DictRef subdbs = subdbsDict();
    Value blob = subdbs ? QVDictGet(*subdbs, *lookup) : Value();
    // A wrong password: no error, no log line.
    if (!blob.isData()) return nullptr;

    DBSubdbRef subdb = DBSubdb::subdbWithData(blob.toData(), shared_from_this(), password, error);
    if (!subdb) return nullptr;
    subdb->setLookup(*lookup);
    if (loadedSubdbs_) (*loadedSubdbs_)[*lookup] = Value(subdb);
    for (const QVRecordRef& folder : subdb->folders()) {
        QVRecordSetSubdb(folder, subdb);
        if (!folder->valueForKeyPath("diskinfo.url").isNull())
            folder->setValueForKeyPath(Value::url(migratedURLForFolder(folder)), "diskinfo.url");
        QVRecordUpgrade(folder, Folder);
    }
    subdb->addClient();
    return subdb;
}

void DBMaster::returnSubDB(const DBSubdbRef& subdb) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    if (!subdb) return;
    if (subdb->removeClient() == 0 && loadedSubdbs_) loadedSubdbs_->erase(subdb->lookup());
}

bool DBMaster::addSubDB(const DBSubdbRef& subdb, bool loadIt, QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    bool ok = false;
    subdb->withPassword([&](std::string& password) {
        std::optional<Bytes> lookup;
        if (subdbsDict()) {
            lookup = lookupForPass(password, false, error);
        } else {
            // The first set fixes the parameters of the whole database.
            DictRef params;
            Bytes pass = utf8(password);
            lookup = QVCrypto::encrypt(utf8(QVLookupPlaintext), pass, &params);
            QVWipe(pass);
            if (!lookup || !params) {
                QVSetAppError(error, QVErrorFailed,
                              "Internal error initializing database, please see system log for more info.");
                QV_LOG_ERROR((lookup ? Value(*lookup) : Value()).description() + " " +
                             (params ? Value(params) : Value()).description());
                return;
            }
            (*masterdb_)[QVMDBParamsKey] = Value(params);
            (*masterdb_)[QVMDBSubdbsKey] = Value::newDict();
        }
        if (!lookup) {
            QV_LOG_FAILED("!lookup");
            return;
        }
        auto blob = dataFromSubdb(subdb, password, nullptr, error);
        if (!blob) return;
        subdb->setLookup(*lookup);
        subdb->setMasterdb(shared_from_this());
        (*subdbsDict())[*lookup] = Value(*blob);
        if (loadIt) {
            if (loadedSubdbs_) (*loadedSubdbs_)[*lookup] = Value(subdb);
            subdb->addClient();
        }
        ok = true;
    });
    return ok;
}

std::optional<Bytes> DBMaster::dataFromSubdb(const DBSubdbRef& subdb, const std::string& pass,
                                             const QVScryptParams* params, QVError* error) {
    auto archived = QVArchivePaddedSet(subdb->subdb());
    if (!archived) {
        QV_LOG_FAILED("!data");
        QVSetAppError(error, QVErrorFailed,
                      "Internal error archiving database, please see system log for details.");
        return std::nullopt;
    }
    auto blob =
        params ? QVCrypto::encryptWithString(*archived, pass, *params) : QVCrypto::encryptWithString(*archived, pass);
    QVWipe(*archived);
    if (!blob) {
        QV_LOG_FAILED("!data");
        QVSetAppError(error, QVErrorFailed,
                      "Internal error encrypting database, please see system log for details.");
    }
    return blob;
}

bool DBMaster::saveSubDB(const DBSubdbRef& subdb, QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    bool made = false;
    subdb->withPassword([&](std::string& password) {
        QVError blobError;
        auto blob = dataFromSubdb(subdb, password, nullptr, &blobError);
        if (!blob) {
            QV_LOG_ERROR(QVFormat("%s: ", __func__) + blobError.description);
            if (error) *error = blobError;
            return;
        }
        DictRef subdbs = subdbsDict();
        if (!subdbs) {
            (*masterdb_)[QVMDBSubdbsKey] = Value::newDict();
            subdbs = subdbsDict();
        }
        (*subdbs)[subdb->lookup()] = Value(*blob);
        made = true;
    });
    return made && archiveMasterDBToURL(databaseURL_, error);
}

bool DBMaster::changePasswordOnSubdb(const DBSubdbRef& subdb, const std::string& password, QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    const Bytes oldLookup = subdb->lookup();
    auto newLookup = lookupForPass(password, false, error);
    if (!newLookup) {
        QV_LOG_FAILED("!newLookup");
        return false;
    }
    std::string oldPassword;
    subdb->withPassword([&](std::string& current) { oldPassword = current; });

    changeFoldersPasswords(subdb, password);
    subdb->setLookup(*newLookup);
    subdb->setPassword(password);
    auto blob = dataFromSubdb(subdb, password, nullptr, nullptr);
    bool result;
    if (blob && !blob->empty()) {
        DictRef subdbs = subdbsDict();
        if (subdbs) {
            subdbs->erase(oldLookup);
            (*subdbs)[*newLookup] = Value(*blob);
        }
        result = subdb->save(error);
    } else {
        changeFoldersPasswords(subdb, oldPassword);
        subdb->setPassword(oldPassword);
        subdb->setLookup(oldLookup);
        QVSetAppError(error, QVErrorPasswordWrap, "Failed to encrypt the password");
        QV_LOG_FAILED("TRUE");
        result = false;
    }
    QVWipe(oldPassword);
    return result;
}

void DBMaster::changeFoldersPasswords(const DBSubdbRef& subdb, const std::string& password) {
    for (const QVRecordRef& folder : subdb->folders()) {
        DBSubdbRef owner = QVRecordGetSubdb(folder);
        if (!owner) owner = subdb;
        owner->withPassword([&](std::string& current) {
            const Value wrapped = folder->valueForKey("password");
            auto text = QVCrypto::decryptStringWithString(wrapped.toData(), current);
            if (text && !text->empty()) {
                if (auto rewrapped = QVCrypto::encryptString(*text, password))
                    folder->setValueForKey(Value(*rewrapped), "password");
            }
            if (text) QVWipe(*text);
        });
    }
}

std::optional<Bytes> DBMaster::lookupKeyForPassword(const std::string& password, QVError* error) {
    DictRef params;
    {
        std::lock_guard<std::recursive_mutex> lock(monitor_);
        params = QVDictGet(*masterdb_, QVMDBParamsKey).toDict();
    }
    if (!params) {
        QVSetAppError(error, QVErrorFailed, "Internal error storing database, see system log for more info.");
        return std::nullopt;
    }
    Bytes pass = utf8(password);
    auto lookup = QVCrypto::encrypt(utf8(QVLookupPlaintext), pass, params);
    QVWipe(pass);
    if (!lookup) QVSetAppError(error, QVErrorFailed, "Internal error storing database, see system log for more info.");
    return lookup;
}

bool DBMaster::containsLookupKey(const Bytes& lookup) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    DictRef subdbs = subdbsDict();
    return subdbs && subdbs->count(DictKey(lookup)) > 0;
}

bool DBMaster::addPreparedSubDB(const DBSubdbRef& subdb, const Bytes& lookup, const Bytes& blob, QVError* error) {
    std::lock_guard<std::recursive_mutex> lock(monitor_);
    DictRef subdbs = subdbsDict();
    if (!subdbs || QVDictGet(*masterdb_, QVMDBParamsKey).isNull()) {
        QVSetAppError(error, QVErrorRefused, "The database has no Folder Set yet.");
        return false;
    }
    if (subdbs->count(DictKey(lookup))) {
        QVSetAppError(error, QVErrorRefused, "A Folder Set with this password exists already.");
        return false;
    }
    subdb->setLookup(lookup);
    subdb->setMasterdb(shared_from_this());
    (*subdbs)[lookup] = Value(blob);
    return true;
}

std::string DBMaster::migratedURLForFolder(const QVRecordRef& folder) {
    std::string path = folder->valueForKeyPath("diskinfo.url").toURLPath();
    const std::string oldPath = oldAppSupURL();
    if (path.rfind(oldPath, 0) != 0) return path;
    const std::string newPath = ourAppSupURL();
    for (size_t pos = 0; (pos = path.find(oldPath, pos)) != std::string::npos; pos += newPath.size())
        path.replace(pos, oldPath.size(), newPath);
    return path;
}

} // namespace qv

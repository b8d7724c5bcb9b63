#pragma once
// The master file: every Folder Set lives in it, each under a lookup key that
// only its password can recompute (a deterministic scrypt container of a fixed
// text), with no list of users, no password hash and no mark of a real set.
// The whole file is held in memory as one dictionary and rewritten whole.
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "toolkit/QVError.h"
#include "vault/DBSubdb.h"
#include "vault/ScryptParams.h"
#include "vault/Value.h"

namespace qv {

inline constexpr const char* QVMDBVersionKey = "QVMDBVersionKey";
inline constexpr const char* QVMDBParamCDKey = "QVMDBParamCDKey";
inline constexpr const char* QVMDBParamsKey = "QVMDBParamsKey";
inline constexpr const char* QVMDBSubdbsKey = "QVMDBSubdbsKey";
// A new database has this version; a file above QVMDBMaxReadableVersion is refused.
inline constexpr int32_t QVMDBCurrentVersion = 2;
inline constexpr int32_t QVMDBMaxReadableVersion = 2;

// The plaintext of every lookup key. Part of the file format: changing a byte
// makes every Folder Set unreachable.
extern const char* const QVLookupPlaintext;

class DBMaster : public std::enable_shared_from_this<DBMaster> {
public:
    // Opens the file, or makes a new database in memory when there is none
    // (nothing is written until the first save). Null on an unreadable file.
    static std::shared_ptr<DBMaster> initWithMasterDBURL(const std::string& url, bool createIfNecessary,
                                                         QVError* error);

    int32_t version() const;
    void setVersion(int32_t version);
    size_t subDBCount() const;
    double creationDate() const;
    const std::string& databaseURL() const { return databaseURL_; }

    bool hasSubDbWithPassword(const std::string& password);
    // Null with no error for a wrong password; null with an error for a failure.
    // The caller owes one returnSubDB when it is done.
    DBSubdbRef getSubDBWithPassword(const std::string& password, QVError* error);
    void returnSubDB(const DBSubdbRef& subdb);
    // Changes only memory; the caller makes it durable (save on the set).
    bool addSubDB(const DBSubdbRef& subdb, bool loadIt, QVError* error);
    bool saveSubDB(const DBSubdbRef& subdb, QVError* error);
    bool changePasswordOnSubdb(const DBSubdbRef& subdb, const std::string& password, QVError* error);
    void changeFoldersPasswords(const DBSubdbRef& subdb, const std::string& password);
    std::string migratedURLForFolder(const QVRecordRef& folder);

    // For work that adds many sets at once: the lookup key of a password under
    // the database's parameters, derived without holding the monitor (so that
    // several derive side by side); nothing with an error when the database has
    // no parameters yet or the derivation fails.
    std::optional<Bytes> lookupKeyForPassword(const std::string& password, QVError* error);
    // Whether a set is stored under this lookup key.
    bool containsLookupKey(const Bytes& lookup);
    // Stores a set whose lookup key and blob were made beforehand (memory only,
    // like addSubDB). Refused (false, error 1003) when a set is stored under that
    // key already or the database has no parameters yet.
    bool addPreparedSubDB(const DBSubdbRef& subdb, const Bytes& lookup, const Bytes& blob, QVError* error);
    // A set's blob: its dictionary archived, padded to a bucket (vault/SetPadding.h)
    // and encrypted with `pass`, under fresh parameters or, when given, under
    // parameters measured beforehand.
    static std::optional<Bytes> dataFromSubdb(const DBSubdbRef& subdb, const std::string& pass,
                                              const QVScryptParams* params, QVError* error);
    bool archiveMasterDBToURL(const std::string& url, QVError* error);

    // The root dictionary (for the upgrade and for tests that inspect the file's content).
    DictRef masterdb() const { return masterdb_; }
    std::recursive_mutex& monitor() { return monitor_; }

private:
    DBMaster() = default;
    static DictRef unarchiveMasterDBFromURL(const std::string& url, QVError* error);
    std::optional<Bytes> lookupForPass(const std::string& pass, bool forLoading, QVError* error);
    DictRef subdbsDict() const;

    DictRef masterdb_;
    // A cache of sets in use that is never created: every get decrypts anew and
    // yields an independent copy of the set. Kept null on purpose.
    DictRef loadedSubdbs_;
    std::string databaseURL_;
    std::recursive_mutex monitor_;
};

using DBMasterRef = std::shared_ptr<DBMaster>;

} // namespace qv

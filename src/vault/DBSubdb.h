#pragma once
// One decrypted Folder Set in memory: its dictionary (the folder list and a
// version), the way back to the master, and the password that opened it. It
// is the only object that keeps a master password after unlocking, and keeps
// it XOR-masked with a random pad, handing it out only for one callback.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "toolkit/QVError.h"
#include "vault/Value.h"

namespace qv {

class DBMaster;
class QVRecord;
using QVRecordRef = std::shared_ptr<QVRecord>;

inline constexpr const char* QVSDBFoldersKey = "QVSDBFoldersKey";
inline constexpr const char* QVSDBVersionKey = "QVSDBVersionKey";
inline constexpr int32_t QVSDBVersion = 1;

class DBSubdb : public Object, public std::enable_shared_from_this<DBSubdb> {
public:
    // A new set holding a copy of the list, version 1, with the password set.
    static std::shared_ptr<DBSubdb> subdbWithFolders(const std::vector<QVRecordRef>& folders,
                                                     const std::string& pass);
    // A set decrypted from a blob of the master file.
    static std::shared_ptr<DBSubdb> subdbWithData(const Bytes& data, const std::shared_ptr<DBMaster>& master,
                                                  const std::string& pass, QVError* error);

    void setPassword(const std::string& password);
    // Calls back synchronously with the password; afterwards the string's
    // content is overwritten with random characters of the same length, so a
    // callback that needs the password later must copy it.
    void withPassword(const std::function<void(std::string& password)>& callback) const;
    // The same, handing out the string itself: a callback that keeps it finds
    // random characters of the same length in it afterwards.
    void withPasswordBuffer(const std::function<void(const std::shared_ptr<std::string>& password)>& callback) const;

    int32_t addClient();
    int32_t removeClient();
    int32_t clientCount() const { return clientCount_.load(); }

    // Adds unless the list holds folders and none of them has a different
    // mountpoint (see add:ifAllSatisfy: in ListHelpers.h). Does not save.
    bool addFolder(const QVRecordRef& folder);
    bool removeFolderWithMountpoint(const std::string& mountpointPath);
    QVRecordRef folderForMountpath(const std::string& path);
    // A snapshot, safe to walk while tasks change the list.
    std::vector<QVRecordRef> folders();
    // Rewrites the whole master file (a second or more).
    bool save(QVError* error);

    const Bytes& lookup() const { return lookup_; }
    void setLookup(const Bytes& lookup) { lookup_ = lookup; }
    std::shared_ptr<DBMaster> masterdb() const { return masterdb_; }
    void setMasterdb(const std::shared_ptr<DBMaster>& master) { masterdb_ = master; }
    DictRef subdb() const { return subdb_; }
    void setSubdb(const DictRef& dict) { subdb_ = dict; }

    // The monitor that guards the folder list; the master's is always taken after it.
    std::recursive_mutex& monitor() { return monitor_; }

    // Archived as an empty placeholder: neither the password nor the folder list
    // reaches a file through a folder's reference to its set.
    std::string className() const override { return "DBSubdb"; }
    bool encodeWithCoder(KeyedEncoder& coder) const override;

private:
    ArrayRef folderArray();

    Bytes opw_;
    Bytes xorpw_;
    std::atomic<int32_t> clientCount_{0};
    Bytes lookup_;
    std::shared_ptr<DBMaster> masterdb_;
    DictRef subdb_;
    std::recursive_mutex monitor_;
};

using DBSubdbRef = std::shared_ptr<DBSubdb>;

// A folder's reference to its set. Weak: the set owns its folders, and whoever
// works on a folder also holds its face, whose `subdb` keeps the set alive.
void QVRecordSetSubdb(const QVRecordRef& folder, const DBSubdbRef& subdb);
DBSubdbRef QVRecordGetSubdb(const QVRecordRef& folder);

} // namespace qv

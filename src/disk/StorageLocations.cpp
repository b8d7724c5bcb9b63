#include "disk/StorageLocations.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/stat.h>

#include "vault/Locations.h"
#include "toolkit/Log.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// mkdir -p with mode 0700 for every directory it makes: what lies under our
// storage belongs to the user alone. Existing directories are left as they are.
// Returns 0 or the errno of the step that failed.
int makeDirectories(const std::string& path) {
    if (path.empty() || path[0] != '/') return EINVAL;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        std::string prefix = path.substr(0, pos);
        if (prefix.empty() || prefix.back() == '/') continue;  // "//" in the path
        if (::mkdir(prefix.c_str(), 0700) == 0) continue;
        int err = errno;
        struct stat st;
        if (err == EEXIST && ::stat(prefix.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode)) return ENOTDIR;
            continue;
        }
        return err;
    }
    return 0;
}

std::string storageURL(const QVRecordRef& storage) {
    return storage ? StorageRef{storage}.url().toURLPath() : std::string();
}

QVRecordRef diskInfoIn(const std::string& directory, const QVRecordRef& folder) {
    DiskInfoRef info{QVRecordForProtocol(DiskInfo)};
    info.setUrl(Value::url(directory + "/" + FolderRef{folder}.uuid().toString() + ".sparsebundle"));
    return info.record;
}

bool hasUUID(const QVRecordRef& folder) {
    if (!folder) {
        QV_LOG_FAILED("!folder");
        return false;
    }
    if (FolderRef{folder}.uuid().toString().empty()) {
        QV_LOG_FAILED("!folder.uuid");
        return false;
    }
    return true;
}

} // namespace

QVRecordRef QVStorageDefault() {
    static std::mutex mutex;
    static QVRecordRef shared;
    std::string location = defaultDiskImageLocationURL();
    std::lock_guard<std::mutex> lock(mutex);
    if (!shared || storageURL(shared) != location) {
        shared = QVStorageCreate("Default", URLValue{location});
        // Our own data directory exists by now; its "Data" is made here so that the
        // free space of the default storage can be measured before its first image.
        // A failure shows where the directory is used.
        ::mkdir(location.c_str(), 0700);
    }
    return shared;
}

QVRecordRef QVStorageMake(const std::string& name, const URLValue& url) { return QVStorageCreate(name, url); }

std::string QVStorageTempURL(const QVRecordRef& storage) {
    std::string base = storageURL(storage);
    if (base.empty()) {
        QV_LOG_ERROR("couldn't create tmp directory at: '(null)'. Reason: the storage has no location");
        return "";
    }
    std::string temp = base + "/Temp";
    struct stat st;
    if (::stat(temp.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return temp;
    if (int err = makeDirectories(temp)) {
        QV_LOG_ERROR(QVFormat("couldn't create tmp directory at: '%s'. Reason: %s", temp.c_str(), std::strerror(err)));
        return "";
    }
    return temp;
}

std::string QVStorageTempMountURL(const QVRecordRef& storage) {
    std::string temp = QVStorageTempURL(storage);
    if (temp.empty()) return "";
    for (;;) {
        std::string candidate = temp + "/" + QVCrypto::randomStringOfLength(10, 65, 122);
        struct stat st;
        if (::lstat(candidate.c_str(), &st) == 0) continue;
        if (::mkdir(candidate.c_str(), 0700) == 0) return candidate;
        int err = errno;
        if (err == EEXIST) continue;  // made by someone else since we looked
        QV_LOG_ERROR(
            QVFormat("couldn't create mount directory at: '%s'. Reason: %s", candidate.c_str(), std::strerror(err)));
        return "";
    }
}

QVRecordRef QVDiskInfoDefaultForFolder(const QVRecordRef& folder) {
    if (!hasUUID(folder)) return nullptr;
    return diskInfoIn(storageURL(QVStorageDefault()), folder);
}

QVRecordRef QVDiskInfoTempForFolder(const QVRecordRef& folder) {
    if (!hasUUID(folder)) return nullptr;
    std::string temp = QVStorageTempURL(FolderRef{folder}.storage().as<QVRecord>());
    if (temp.empty()) return nullptr;
    return diskInfoIn(temp, folder);
}

} // namespace qv

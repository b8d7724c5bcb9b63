#include "app/InterruptedWork.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "app/FolderList.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/MountpointMode.h"
#include "disk/StorageLocations.h"
#include "tasks/EncryptFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

namespace fs = std::filesystem;

bool isImageAt(const std::string& path) {
    std::error_code ec;
    return !path.empty() && fs::is_directory(path, ec) &&
           (fs::exists(path + "/Info.plist", ec) || fs::exists(path + "/Info.bckup", ec));
}

bool removeImage(const std::string& path, QVError* error) {
    std::error_code ec;
    if (path.empty() || !fs::exists(fs::symlink_status(path, ec))) return true;
    fs::remove_all(path, ec);
    if (!ec) return true;
    QVSetAppError(error, QVErrorFailed,
                  QVFormat("Couldn't delete the unfinished disk image '%s': %s", path.c_str(), ec.message().c_str()));
    return false;
}

} // namespace

bool QVIsUnfinishedEncryption(const QVRecordRef& face) {
    const QVRecordRef folder = FolderFaceRef{face}.folder().as<QVRecord>();
    return folder && !FolderRef{folder}.encrypted().toBool();
}

UnfinishedEncryption QVSettleUnfinishedEncryption(const QVRecordRef& face, QVError* error) {
    const QVRecordRef folder = FolderFaceRef{face}.folder().as<QVRecord>();
    FolderRef f{folder};
    const std::string path = QVTrimmedPath(f.mountpoint().toURLPath());
    const std::string name = QVLastPathComponent(path);
    if (!folder || path.empty() || f.encrypted().toBool()) {
        QVSetAppError(error, QVErrorRefused, "Internal error: the folder is not one whose encryption never ended.");
        return UnfinishedEncryption::Failed;
    }
    FolderList& list = FolderList::singleton();
    const DBSubdbRef subdb = list.subdb();
    if (!subdb) {
        QVSetAppError(error, QVErrorRefused, "Internal error: no Folder Set on show.");
        return UnfinishedEncryption::Failed;
    }
    // The image went from Temp to the storage before the source was touched;
    // the record names the final place only once it was saved after that move.
    const QVRecordRef storage = f.storage().as<QVRecord>();
    const std::string storageDir = QVTrimmedPath(StorageRef{storage}.url().toURLPath());
    const std::string fileName = f.uuid().toString() + ".sparsebundle";
    const std::string finalImage = storageDir.empty() ? std::string() : storageDir + "/" + fileName;
    const QVRecordRef temp = QVDiskInfoTempForFolder(folder);
    const std::string tempImage = temp ? DiskInfoRef{temp}.url().toURLPath() : std::string();

    std::error_code ec;
    const bool sourceStands = fs::is_directory(path, ec) && !fs::is_empty(path, ec);
    if (sourceStands && isVolumeAtPath(path)) {
        QVSetAppError(error, QVErrorRefused,
                      QVFormat("'%s' has something mounted on it; lock or unmount it first.", name.c_str()));
        return UnfinishedEncryption::Failed;
    }

    if (sourceStands) {
        // Nothing irreversible happened: whatever image was made goes.
        QVLogInfo(QVFormat("starting the unfinished encryption of '%s' over", path.c_str()));
        if (!removeImage(tempImage, error) || !removeImage(finalImage, error)) return UnfinishedEncryption::Failed;
        if (!storageDir.empty()) EncryptFolderTask::removeTempFolder(storageDir + "/Temp");
        list.removeFolderFace(face);
        QVError saveError;
        if (!subdb->save(&saveError)) {
            QVSetAppError(
                error, QVErrorFailed,
                QVFormat("Couldn't save the Folder Set without '%s': %s", name.c_str(), saveError.description.c_str()));
            return UnfinishedEncryption::Failed;
        }
        return UnfinishedEncryption::StartOver;
    }

    // The source went to the Trash, which happens only with the image complete
    // at its final place and the record that opens it saved.
    const std::string recorded = QVTrimmedPath(DiskInfoRef{f.diskinfo().as<QVRecord>()}.url().toURLPath());
    if (recorded != finalImage || !isImageAt(finalImage) || f.password().toData().empty()) {
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("The encryption of '%s' never ended, and neither the original folder nor its "
                               "complete disk image is left to finish it from. Look for the folder in the Trash.",
                               name.c_str()));
        return UnfinishedEncryption::Failed;
    }
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        QVSetErrnoError(error, errno, QVFormat("Couldn't create the empty folder '%s'", path.c_str()));
        return UnfinishedEncryption::Failed;
    }
    removeImage(tempImage, nullptr);
    if (!storageDir.empty()) EncryptFolderTask::removeTempFolder(storageDir + "/Temp");
    QVLogInfo(QVFormat("finishing the encryption of '%s'", path.c_str()));
    QVTakeMountpointWriteAccess(folder);
    f.setEncrypted(Value(true));
    QVError saveError;
    if (!subdb->save(&saveError)) {
        f.setEncrypted(Value(false));
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("Couldn't save '%s' as encrypted: %s", name.c_str(), saveError.description.c_str()));
        return UnfinishedEncryption::Failed;
    }
    notePathChanged(path);
    list.setupFolderFace(face);
    return UnfinishedEncryption::Completed;
}

bool QVFolderIsDamaged(const QVRecordRef& face) {
    const QVRecordRef folder = FolderFaceRef{face}.folder().as<QVRecord>();
    return folder && isDeadVolumeAtURL(QVTrimmedPath(FolderRef{folder}.mountpoint().toURLPath()));
}

bool QVTakeAwayDeadVolume(const QVRecordRef& face, QVError* error) {
    QVError detachError;
    if (!DiskMaster::unmountDiskForFolderFace(face, "", true, false, &detachError)) {
        QVSetAppError(error, QVErrorFailed, "Couldn't take the damaged volume away:\n\n" + detachError.description);
        return false;
    }
    FolderFaceRef{face}.setLocked(Value(true));
    return true;
}

} // namespace qv

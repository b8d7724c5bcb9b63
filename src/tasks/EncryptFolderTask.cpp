#include "tasks/EncryptFolderTask.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "disk/DesktopOpen.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/MountpointMode.h"
#include "disk/RenameAt.h"
#include "disk/StorageLocations.h"
#include "disk/Trash.h"
#include "notify/AlertPanel.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/TrashWait.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {

namespace {

constexpr const char* kUnknownErrorText = "Unknown error. This shouldn't ever happen, please let us know about it!";
constexpr const char* kTrashedText =
    "The original folder has been placed in the Trash.\n\nYou can securely delete it by selecting \"Secure Empty "
    "Trash...\" from the Finder menu.";

QVError appError(long code, const std::string& text) { return QVError{QVAppErrorDomain(), code, text}; }

// Makes and wraps the folder's own image password: 30 to 40 characters of
// printable ASCII, encrypted under the Folder Set's password. The plain form
// never outlives this call.
std::optional<Bytes> newWrappedImagePassword(const DBSubdbRef& subdb) {
    const uint32_t length =
        QVCrypto::randomIntegerBetween(EncryptFolderTask::kPasswordMinLength, EncryptFolderTask::kPasswordMaxLength);
    std::string password = QVCrypto::randomPasswordOfLength(length);
    Bytes plain(password.begin(), password.end());
    QVWipe(password);
    std::optional<Bytes> wrapped;
    subdb->withPassword([&](std::string& setPassword) { wrapped = QVCrypto::encryptWithString(plain, setPassword); });
    QVWipe(plain);
    return wrapped;
}

} // namespace

void EncryptFolderTask::removeTempFolder(const std::string& path) {
    if (path.empty()) return;
    std::error_code ec;
    std::filesystem::directory_iterator it(path, ec);
    if (ec || it != std::filesystem::directory_iterator()) return;
    // rmdir itself refuses a directory that has gained an entry since.
    if (::rmdir(path.c_str()) != 0 && errno != ENOENT && errno != ENOTEMPTY && errno != EEXIST)
        QV_LOG_WARN(QVFormat("couldn't remove '%s': %s", path.c_str(), std::strerror(errno)));
}

std::string EncryptFolderTask::diskDefaultDestination(const QVRecordRef& folderFace) {
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    const std::string url = QVFolderMountpointPath(folder);
    const std::string name = QVLastPathComponent(url);

    const std::string destination = QVTrimmedPath(QVDiskImageDestinationPath());
    if (!destination.empty()) {
        struct stat st;
        const bool exists = ::stat(destination.c_str(), &st) == 0;
        const bool isDir = exists && S_ISDIR(st.st_mode);
        if (isDir && exists) return QVPathByAppendingComponent(destination, name);
        QV_LOG_FAILED("!isDir || !exists");
    }
    const std::string grandparent = QVParentPath(QVParentPath(url));
    return QVPathByAppendingComponent(grandparent, name);
}

OperationResult EncryptFolderTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    FolderRef f{folder};
    DBSubdbRef subdb = QVRecordGetSubdb(folder);
    if (!subdb) subdb = face.subdb().as<DBSubdb>();
    // Kept as text: the Trash step takes the folder away from this path.
    const std::string mountpointPath = QVTrimmedPath(f.mountpoint().toURLPath());
    const std::string name = QVLastPathComponent(mountpointPath);
    // A folder's custom icon lives inside it here (".directory" and its image),
    // so it travels into the image with the contents and shows whenever the
    // folder is unlocked. The empty folder left behind can't wear it: a mount
    // point must stay empty.
    const QVRecordRef storage = f.storage().as<QVRecord>();
    const std::string tempDir = QVStorageTempURL(storage);

    std::optional<QVError> error;
    QVRecordRef diskInfo;

    // The record stands on disk, not yet encrypted, before anything is made.
    bool saved = false;
    QVError saveError;
    if (folder && subdb && !mountpointPath.empty()) {
        performBlockOnMainThread(
            [&] {
                f.setEncrypted(Value(false));
                face.setProgressIndeterminate(Value(true));
                face.setProgressPercentage(Value(0.0));
                face.setProgressAnimate(Value(true));
                face.setCancelable(Value(true));
                QVSetFaceStatusText(folderFace, "Encrypting...", false);
                saved = subdb->save(&saveError);
            },
            true);
    } else {
        QV_LOG_FAILED("!folder || !subdb || !mountpoint");
        saveError = appError(QVErrorRefused, "Internal error: the folder has no record, Folder Set or path.");
    }

    if (!saved) {
        // Nothing was made: the record leaves the set again.
        QV_LOG_ERROR(QVFormat("can't encrypt %s because db failed initial save.", mountpointPath.c_str()));
        if (subdb)
            performBlockOnMainThread([subdb, mountpointPath] { subdb->removeFolderWithMountpoint(mountpointPath); });
        error = saveError.empty() ? appError(QVErrorUnknown, kUnknownErrorText) : saveError;
    } else {
        // The image, made from the folder's contents; the copy polls opCanceled.
        if (std::optional<Bytes> wrapped = newWrappedImagePassword(subdb)) {
            f.setPassword(Value(*wrapped));
            diskInfo = QVDiskInfoTempForFolder(folder);
            if (!diskInfo) error = appError(QVErrorFailed, "Couldn't create a temporary directory for the disk image.");
        } else {
            error = appError(QVErrorPasswordWrap, "Couldn't encrypt the disk image's password.");
        }
        if (!error) {
            f.setDiskinfo(Value(diskInfo));
            QVError createError;
            const bool created =
                DiskMaster::createDiskForFolderFace(folderFace, 0, DiskCreateUpdateUI, nullptr, &createError);
            // A cancel is the user's own doing and is neither logged nor shown.
            if (!created) {
                if (createError.empty()) {
                    QV_LOG_ERROR("error wasn't set!");
                    createError = appError(QVErrorUnknown, kUnknownErrorText);
                } else if (createError.code != QVErrorCancelled) {
                    QV_LOG_ERROR(QVFormat("Error creating disk image for '%s': %s", mountpointPath.c_str(),
                                          createError.description.c_str()));
                }
                error = createError;
            }
        }
        if (error && error->code != QVErrorCancelled && diskInfo == nullptr)
            QV_LOG_ERROR(QVFormat("Error creating disk image for '%s': %s", mountpointPath.c_str(),
                                  error->description.c_str()));
    }

    // Past this point a cancel is no longer offered.
    performBlockOnMainThread([&] { face.setCancelable(Value(false)); }, true);

    // The image to its final place, durably, before the source goes.
    if (!error) {
        DiskInfoRef info{diskInfo};
        const std::string from = info.url().toURLPath();
        const std::string storageDir = QVTrimmedPath(StorageRef{storage}.url().toURLPath());
        const std::string to = storageDir + "/" + QVLastPathComponent(from);
        const int err = QVRenameNoReplaceAt(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str());
        if (err == 0) {
            if (QVError syncError; !QVSyncDirectory(storageDir, &syncError))
                QV_LOG_WARN(QVFormat("couldn't sync '%s': %s", storageDir.c_str(), syncError.description.c_str()));
            info.setUrl(Value::url(to));
        } else {
            const std::string why = std::strerror(err);
            QV_LOG_ERROR(QVFormat("failed to move '%s' => '%s': %s", from.c_str(), to.c_str(), why.c_str()));
            error = appError(err, QVFormat("Failed to move disk image because: %s", why.c_str()));
        }
    }

    // The record that opens the image (its wrapped password and its final
    // place) reaches the disk before the source goes: a crash from here on
    // leaves the files in the Trash and an image that the set can still open.
    if (!error && subdb) {
        QVError saveError;
        bool saved = false;
        performBlockOnMainThread([&] { saved = subdb->save(&saveError); }, true);
        if (!saved) {
            QV_LOG_ERROR(QVFormat("can't encrypt %s because db failed to save the image's record: %s",
                                  mountpointPath.c_str(), saveError.description.c_str()));
            error = saveError.empty() ? appError(QVErrorUnknown, kUnknownErrorText) : saveError;
        }
    }

    // The source to the Trash: on the main thread, while this thread waits.
    bool strayed = false;
    // The empty folder made in its place keeps its permissions.
    struct stat sourceStat {};
    const bool sourceMode = !error && ::stat(mountpointPath.c_str(), &sourceStat) == 0;
    if (!error) {
        const QVTrashOutcome outcome = QVTrashOnMainThreadAndWait(mountpointPath);
        if (!outcome.trashed) {
            QV_LOG_ERROR(
                QVFormat("failed to trash '%s': %s", mountpointPath.c_str(), outcome.error.description.c_str()));
            error = appError(outcome.error.code,
                             QVFormat("Failed to trash '%s':\n\n%s", name.c_str(), outcome.error.description.c_str()));
        } else if (!outcome.strayPath.empty()) {
            strayed = true;
            QVNotificationCenter::defaultCenter().postAlert(
                QVFormat("The original folder '%s' could not be placed in the Trash and is now at:\n\n%s", name.c_str(),
                         outcome.strayPath.c_str()),
                true);
        }
    }

    // The record names the folder by the path it had, whatever the Trash did.
    if (!mountpointPath.empty()) f.setMountpoint(Value::url(mountpointPath));

    // The empty folder that the image will be mounted on.
    if (!error) {
        if (!strayed) QVNotificationCenter::defaultCenter().postAlert(kTrashedText, true);
        if (::mkdir(mountpointPath.c_str(), 0777) != 0) {
            const std::string why = std::strerror(errno);
            QV_LOG_ERROR(QVFormat("failed to re-create folder! '%s': %s", mountpointPath.c_str(), why.c_str()));
            const std::string parent = QVParentPath(mountpointPath);
            performBlockOnMainThread([why, mountpointPath, parent] {
                QV_LOG_WARN(why);
                QVNotificationCenter::defaultCenter().postCritical(
                    "Couldn't create folder!\n\n" +
                        QVFormat("%s\n\nPlease create an empty folder at this location yourself:\n\n%s", why.c_str(),
                                 mountpointPath.c_str()),
                    true);
                QVError revealError;
                if (!QVRevealInFileManager({parent}, &revealError))
                    QV_LOG_WARN(QVFormat("couldn't show '%s': %s", parent.c_str(), revealError.description.c_str()));
            });
            // The image is complete and the user knows what to do: a success.
        } else {
            if (sourceMode && ::chmod(mountpointPath.c_str(), sourceStat.st_mode & 07777) != 0)
                QV_LOG_WARN(QVFormat("couldn't give '%s' its mode: %s", mountpointPath.c_str(), std::strerror(errno)));
            // Locked from now on: read-only, its own mode kept in the record saved below.
            QVTakeMountpointWriteAccess(folder);
        }
    }

    // The next task on this folder starts uncancelled.
    performBlockOnMainThread([face] { face.setOpCanceled(Value()); });

    if (error) {
        // Undo: the new image goes, the record leaves the set, the source stays.
        if (error->code != QVErrorCancelled) {
            const std::string description = error->description;
            QV_LOG_WARN(description);
            QVShowAlertPanelLater("Error creating disk image", description);
        }
        if (diskInfo) {
            const std::string image = DiskInfoRef{diskInfo}.url().toURLPath();
            std::error_code ec;
            if (!image.empty()) std::filesystem::remove_all(image, ec);
        }
        performBlockOnMainThread(
            [&] {
                FolderFacesHost* list = QVFolderFacesHost();
                if (list) list->removeFolderFace(folderFace);
                // A set that is not the one on show keeps its own copy of the record.
                if (subdb && (!list || list->subdb() != subdb) && subdb->removeFolderWithMountpoint(mountpointPath)) {
                    QVError removeError;
                    if (!subdb->save(&removeError))
                        QV_LOG_ERROR(QVFormat("couldn't save the set without '%s': %s", mountpointPath.c_str(),
                                              removeError.description.c_str()));
                }
            },
            true);
    } else {
        // Done: file managers hear of the new folder, the record is saved encrypted.
        notePathChanged(mountpointPath);
        f.setMountpoint(Value::url(mountpointPath));
        notePathChanged(QVParentPath(mountpointPath));
        QVNotificationCenter::defaultCenter().postInfo(QVFormat("Encrypted '%s'.", name.c_str()), false);
        performBlockOnMainThread(
            [&] {
                f.setEncrypted(Value(true));
                QVError finalError;
                if (!subdb->save(&finalError)) {
                    QV_LOG_ERROR(QVFormat("couldn't save '%s' as encrypted: %s", mountpointPath.c_str(),
                                          finalError.description.c_str()));
                    QVNotificationCenter::defaultCenter().postAlert(
                        QVFormat("'%s' was encrypted, but the list of folders couldn't be saved:\n\n%s", name.c_str(),
                                 finalError.description.c_str()),
                        true);
                }
                QVDisplayFolderSizeInfo(folderFace);
            },
            true);
    }

    // The Temp of the storage goes when nothing else uses it.
    removeTempFolder(tempDir);
    return error;
}

} // namespace qv

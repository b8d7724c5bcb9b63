#include "disk/FolderSanity.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/statvfs.h>

#include "disk/FileSystemVolumes.h"
#include "disk/SizeWalk.h"
#include "disk/URLHelpers.h"
#include "toolkit/HumanReadable.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

// Progress of a size walk is reported past every mark; the next mark is set this
// far beyond the total that passed the last one.
constexpr uint64_t QVSizeReportStep = 209715200;  // 200 MiB

// Status lines go through the folder list on the main thread, after the caller.
void postStatus(const QVRecordRef& face, std::string text, bool error) {
    presentFolderFace(face, {.status = std::move(text), .statusIsError = error});
}

bool isCanceled(const QVRecordRef& face) { return FolderFaceRef{face}.opCanceled().toBool(); }

// The repair of an unencrypted record that has an image: the record is marked and
// its Folder Set saved, on the main thread, which alone changes a set.
void markEncryptedAndSave(const QVRecordRef& folderRecord) {
    performBlockOnMainThread(
        [folderRecord] {
            FolderRef folder{folderRecord};
            folder.setEncrypted(Value(true));
            DBSubdbRef subdb = QVRecordGetSubdb(folderRecord);
            if (!subdb) {
                QV_LOG_ERROR(QVFormat("can't save the repaired record of '%s': it belongs to no Folder Set",
                                      folder.mountpoint().toURLPath().c_str()));
                return;
            }
            QVError error;
            if (!subdb->save(&error)) QV_LOG_ERROR(error.description);
        },
        true);
}

} // namespace

bool QVFolderIsUnlocked(const QVRecordRef& folder, QVError* error) {
    const std::string mountpoint = folder ? FolderRef{folder}.mountpoint().toURLPath() : std::string();
    QVError volumeError;
    const bool mounted = isVolumeAtURL(mountpoint, &volumeError);
    if (!mounted && !volumeError.empty()) {
        QV_LOG_ERROR(volumeError.description);
        QVSetAppError(error, volumeError.code,
                      "Couldn't figure out if folder is locked or unlocked. Reason:\n\n" + volumeError.description);
    }
    return mounted;
}

int64_t QVStorageAvailableBytes(const QVRecordRef& storage) {
    const std::string url = storage ? StorageRef{storage}.url().toURLPath() : std::string();
    if (url.empty()) {
        QV_LOG_FAILED("!storage.url");
        return -1;
    }
    struct statvfs vfs;
    if (::statvfs(url.c_str(), &vfs) != 0) {
        int err = errno;
        QV_LOG_ERROR(QVFormat("statvfs returned: %d for: '%s': %s", err, url.c_str(), std::strerror(err)));
        return -1;
    }
    // What an unprivileged user may still fill, not the blocks kept for root.
    unsigned __int128 bytes = (unsigned __int128)vfs.f_bavail * vfs.f_frsize;
    return bytes > (unsigned __int128)INT64_MAX ? INT64_MAX : (int64_t)bytes;
}

long sanityCheckFolderFace(const QVRecordRef& face, QVError* error) {
    if (!face) {
        QV_LOG_FAILED("!ff");
        QVSetAppError(error, QVSanityNullFace, "Internal Error: Nil parameter passed in.");
        return QVSanityNullFace;
    }
    FolderFaceRef ff{face};
    const QVRecordRef folderRecord = ff.folder().as<QVRecord>();
    FolderRef folder{folderRecord};
    DiskInfoRef diskinfo{folder.diskinfo().as<QVRecord>()};
    const std::string mountpoint = folder.mountpoint().toURLPath();
    const std::string name = QVLastPathComponent(mountpoint);
    const std::string imagePath = diskinfo.url().toURLPath();

    if (!folder.encrypted().toBool()) {
        if (!checkResourceIsReachable(imagePath, nullptr)) return QVSanityOK;
        QV_LOG_WARN(QVFormat("folder '%s' was set as not being encrypted when it has a disk image associated with it: %s",
                             name.c_str(), imagePath.c_str()));
        QVNotificationCenter::defaultCenter().postAlert(
            QVFormat("Internal Issue: '%s' supposedly not encrypted but has disk image associated with it!", name.c_str()),
            true);
        markEncryptedAndSave(folderRecord);
        // The record now says what the disk says; check it again from the start. A
        // record that can't hold the mark (no such field) goes on as encrypted
        // instead, rather than round and round.
        if (folder.encrypted().toBool()) return sanityCheckFolderFace(face, error);
        QV_LOG_ERROR(QVFormat("the record of '%s' can't be marked as encrypted", name.c_str()));
    }

    QVError reachError;
    if (!checkResourceIsReachable(mountpoint, &reachError)) {
        QV_LOG_ERROR(QVFormat("folder mountpoint unreachable '%s': %s", mountpoint.c_str(),
                              reachError.description.c_str()));
        presentFolderFace(face, {.status = "Mountpoint missing!", .statusIsError = true, .locked = true});
        QVSetAppError(error, reachError.code,
                      QVFormat("Mountpoint for '%s' is not reachable:\n\n%s\n\nIt should be here:\n\n%s", name.c_str(),
                               reachError.description.c_str(), mountpoint.c_str()));
        return QVSanityMountpointMissing;
    }

    // Without an out-parameter nobody could be told why the state is unknown, so the
    // test is not made a reason to stop.
    QVError unlockError;
    const bool unlocked = QVFolderIsUnlocked(folderRecord, error ? &unlockError : nullptr);
    if (error && !unlockError.empty()) {
        *error = unlockError;
        return QVSanityLockStateUnknown;
    }

    if (ff.locked().toBool() == unlocked) {
        QV_LOG_WARN(QVFormat("locked value was out of sync with reality for folder: %s", mountpoint.c_str()));
        // The file system wins.
        performBlockOnMainThread([face, unlocked] { FolderFaceRef{face}.setLocked(Value(!unlocked)); });
    }

    reachError = QVError();
    if (!checkResourceIsReachable(imagePath, &reachError)) {
        QV_LOG_ERROR(QVFormat("dmg '%s' for '%s' unavailable: %s", imagePath.c_str(), name.c_str(),
                              reachError.description.c_str()));
        postStatus(face, "Diskimage missing!", true);
        QVSetAppError(error, reachError.code,
                      QVFormat("Disk image for '%s' is not reachable:\n\n%s\n\nIt should be here:\n\n%s", name.c_str(),
                               reachError.description.c_str(), imagePath.c_str()));
        return QVSanityDiskImageMissing;
    }
    return QVSanityOK;
}

uint64_t folderSizeOfFolderFace(const QVRecordRef& face, bool updateStatusText, QVError* error) {
    const std::string mountpoint =
        face ? FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath() : std::string();
    return folderSizeOfFolderFace(face, mountpoint, updateStatusText, error);
}

uint64_t folderSizeOfFolderFace(const QVRecordRef& face, const std::string& mountpoint, bool updateStatusText,
                                QVError* error) {
    if (!face) {
        QV_LOG_FAILED("!ff");
        QVSetAppError(error, QVErrorFailed, "Internal Error: Nil parameter passed in.");
        return QVSizeFailed;
    }

    if (updateStatusText) postStatus(face, "Calculating size...", false);

    QVSizeCancelBlock cancelBlock;
    uint64_t mark = 0;
    if (updateStatusText) {
        cancelBlock = [&mark, face](uint64_t total) {
            if (mark + QVSizeReportStep < total) {
                mark = total + QVSizeReportStep;
                postStatus(face, "Calculating... " + bytesToHumanReadableString(total), false);
            }
            if (!isCanceled(face)) return false;
            presentFolderFace(face, {.indeterminate = true, .status = "Cancelling..."});
            return true;
        };
    } else {
        cancelBlock = [face](uint64_t) { return isCanceled(face); };
    }

    const int64_t size = fastFolderSizeAtFSRef(mountpoint, cancelBlock);
    // A cancelled walk hands back a partial total: never to be taken for the size.
    if (isCanceled(face)) {
        QVSetAppError(error, QVErrorCancelled, "User canceled size calculation");
        return QVSizeFailed;
    }
    if (size < 0) {
        QV_LOG_ERROR(QVFormat("failed to calculate size of: %s", mountpoint.c_str()));
        QVSetAppError(error, QVErrorUnknown, "Failed to calculate folder size, see console for specific reason");
        return QVSizeFailed;
    }
    if (updateStatusText) postStatus(face, "Size: " + bytesToHumanReadableString(uint64_t(size)), false);
    return uint64_t(size);
}

} // namespace qv

#include "tasks/UnlockFolderTask.h"

#include <filesystem>
#include <mutex>

#include "tasks/TaskQueue.h"
#include "tasks/FolderActionsRunner.h"
#include "disk/DesktopOpen.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/FolderSanity.h"
#include "disk/URLHelpers.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "toolkit/MainThread.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// Whether the directory at `path` has any entry besides "." and "..".
bool holdsEntries(const std::string& path) {
    std::error_code ec;
    std::filesystem::directory_iterator it(path, ec);
    return !ec && it != std::filesystem::directory_iterator();
}

// An ext4 label holds this many bytes.
constexpr size_t kLabelBytes = 16;

std::mutex& statMakerMutex() {
    static std::mutex mutex;
    return mutex;
}
UnlockFolderTask::StatTaskMaker& statMaker() {
    static UnlockFolderTask::StatTaskMaker maker;
    return maker;
}

// The size task behind this one: it waits for the face's current operation.
void queueStatTask(const QVRecordRef& folderFace) {
    UnlockFolderTask::StatTaskMaker maker;
    {
        std::lock_guard lock(statMakerMutex());
        maker = statMaker();
    }
    if (!maker) return;
    const OperationRef operation = maker(folderFace);
    if (!operation) return;
    QVError error;
    if (!addFolderTask(QVAppOperationQueue(), operation, &error))
        QV_LOG_ERROR(QVFormat("couldn't queue the size task: %s", error.description.c_str()));
}

} // namespace

OperationRef UnlockFolderTask::taskWithFolderFace(const QVRecordRef& folderFace, bool openFolder) {
    auto task = std::make_shared<UnlockFolderTask>();
    task->openFolder = openFolder;
    return makeOperation(task, folderFace);
}

void UnlockFolderTask::setStatTaskMaker(StatTaskMaker maker) {
    std::lock_guard lock(statMakerMutex());
    statMaker() = std::move(maker);
}

bool UnlockFolderTask::shouldSilent(const QVRecordRef& folder) {
    return !isInDesktop(FolderRef{folder}.mountpoint().toURLPath());
}

bool UnlockFolderTask::volumeNameDiffers(const std::string& volumeName, const std::string& folderName) {
    if (volumeName.empty()) return false;
    std::string label = folderName;
    if (label.size() > kLabelBytes) {
        size_t cut = kLabelBytes;
        while (cut > 0 && (static_cast<unsigned char>(label[cut]) & 0xC0) == 0x80) --cut;
        label.resize(cut);
    }
    return volumeName != label;
}

OperationResult UnlockFolderTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    FolderRef f{folder};
    const Value mountpointValue = f.mountpoint();
    const std::string mountpoint = QVTrimmedPath(mountpointValue.toURLPath());
    const std::string name = QVLastPathComponent(mountpoint);
    auto& centre = QVNotificationCenter::defaultCenter();

    // 1. Without its image there is nothing to unlock; the row isn't touched.
    const std::string image = DiskInfoRef{f.diskinfo().as<QVRecord>()}.url().toURLPath();
    if (image.empty()) {
        QV_LOG_ERROR("Error de URL");
        centre.postAlert(QVFormat("Disk image information not found for folder '%s'.", name.c_str()), false);
        return QVError{QVAppErrorDomain(), QVErrorUnlockRefused,
                       "Failed to mount disk image, error:\n\nDisk image information missing"};
    }

    // 2. The records against the disk; a failure stands, and is reported at the end.
    std::optional<QVError> error;
    QVError sanityError;
    if (sanityCheckFolderFace(folderFace, &sanityError) != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    // 3. An application that an Open action names must not be running yet:
    // refused before anything is mounted, and the row stays as it was.
    if (auto application = QVFolderActionsRunner().appInUnlockActionsIsRunning(folder); application && !application->empty()) {
        const std::string text = QVFormat(
            "Failed to unlock folder %s.\nThe folder cannot be unlocked while the application %s  is running. "
            "Please, close %s and try again.",
            name.c_str(), application->c_str(), application->c_str());
        QV_LOG_ERROR(text);
        centre.postAlert(text, false);
        return QVError{QVAppErrorDomain(), QVErrorUnlockRefused, text};
    }

    // 4. A locked folder wears no icon of its own here: its custom icon lives
    // inside the image (a mount point must stay empty), and shows with the
    // volume. So there is nothing to carry over onto the volume.

    // 5. The mount.
    if (!error) {
        DBSubdbRef subdb = QVRecordGetSubdb(folder);
        if (!subdb) subdb = face.subdb().as<DBSubdb>();
        bool locked = false;
        performBlockOnMainThread(
            [&] {
                face.setProgressIndeterminate(Value(true));
                face.setProgressAnimate(Value(true));
                if (subdb) subdb->save(nullptr);
                f.setMountpoint(mountpointValue);
                QVSetFaceStatusText(folderFace, "Unlocking...", false);
                // Read here, after whatever the sanity check posted.
                locked = face.locked().toBool();
            },
            true);
        if (locked && holdsEntries(mountpoint)) {
            // Files that reached the empty folder while it was locked would be
            // hidden under the volume, and look lost: nothing is mounted over them.
            error = QVError{QVAppErrorDomain(), QVErrorUnlockRefused,
                            QVFormat("'%s' holds files although it is locked. Nothing was mounted over them, so that "
                                     "none is hidden: move them out of\n\n%s\n\nthen unlock the folder again.",
                                     name.c_str(), mountpoint.c_str())};
        } else if (locked) {
            QVError mountError;
            if (!DiskMaster::mountDiskForFolderFace(folderFace, shouldSilent(folder), "", true, &mountError)) {
                QV_LOG_ERROR(QVFormat("failed to mount '%s': %s", name.c_str(), mountError.description.c_str()));
                error = mountError;
            } else if (auto volumeName = volnameAtURL(mountpoint); volumeName && volumeNameDiffers(*volumeName, name)) {
                // The folder was renamed while it was locked: the volume follows.
                QVLogInfo(QVFormat("volume name changed: '%s' => '%s'", volumeName->c_str(), name.c_str()));
                QVError renameError;
                if (!DiskMaster::renameDiskForFolderFace(folderFace, name, "", true, &renameError))
                    centre.postAlert(QVFormat("Failed to rename '%s' => '%s'\n\n%s", volumeName->c_str(), name.c_str(),
                                              renameError.description.c_str()),
                                     true);
            }
        }
        showSizeInfo(folderFace);
    }

    // 6. Unlocked: measure, run the actions, tell.
    if (!error) {
        performBlockOnMainThread([folderFace] { FolderFaceRef{folderFace}.setOpCanceled(Value()); }, false);
        queueStatTask(folderFace);
        executeUnlockActions(folderFace);  // reported by itself; the folder is unlocked either way
        notePathChanged(mountpoint);
        if (openFolder) QVOpenURL(mountpoint);
        centre.postInfo(QVFormat("Unlocked '%s'.", name.c_str()), false);
    } else {
        // 7.
        centre.postCritical(QVFormat("Failed to unlock '%s': %s", name.c_str(), error->description.c_str()), true);
    }

    // 8.
    endProgress(folderFace);
    return error;
}

OperationResult UnlockFolderTask::executeUnlockActions(const QVRecordRef& folderFace) {
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    QVError error;
    if (QVFolderActionsRunner().executeUnlockActions(folder, &error) && error.empty()) return std::nullopt;
    QV_LOG_ERROR(QVFormat("last action failed '%s'", error.description.c_str()));
    QVNotificationCenter::defaultCenter().postAlert(
        QVFormat("Last configured action failed with error:\n%s", error.description.c_str()), true);
    return error;
}

} // namespace qv

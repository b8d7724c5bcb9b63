#include "tasks/LockFolderTask.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "tasks/FolderActionsRunner.h"
#include "disk/RunningApplications.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/FolderSanity.h"
#include "disk/URLHelpers.h"
#include "sys/ProcList.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "notify/QVNotificationCenter.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

Value now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return Value::date(std::chrono::duration<double>(since).count());
}

// The row back at rest after a failed lock, with the time of the failure.
void noteLockFailure(const QVRecordRef& folderFace) {
    performBlockOnMainThread(
        [folderFace] {
            FolderFaceRef face{folderFace};
            face.setProgressIndeterminate(Value(false));
            face.setProgressAnimate(Value(false));
            face.setLockErrorDate(now());
            QVDisplayFolderSizeInfo(folderFace);
        },
        false);
}

} // namespace

OperationResult LockFolderTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    const std::string mountpoint = QVFolderMountpointPath(folder);
    auto& centre = QVNotificationCenter::defaultCenter();

    // 1. A failure stands, but the lock actions still run.
    std::optional<QVError> error;
    QVError sanityError;
    const std::string name = QVLastPathComponent(mountpoint);
    if (sanityCheckFolderFace(folderFace, &sanityError) != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    // 2. The actions can hold the lock back (an application that won't quit).
    if (auto actionError = executeLockActions(folderFace)) {
        noteLockFailure(folderFace);
        return actionError;
    }

    // 3. The unmount; never forced.
    if (!error) {
        if (!showLockingAndReadLocked(folderFace)) {
            QVError unmountError;
            if (!DiskMaster::unmountDiskForFolderFace(folderFace, "", false, true, &unmountError)) {
                QV_LOG_ERROR(QVFormat("failed to unmount '%s': %s", name.c_str(), unmountError.description.c_str()));
                error = unmountError;
            }
        }
        showSizeInfo(folderFace);
    }

    // 4. Locked.
    if (!error) {
        notePathChanged(mountpoint);
        performBlockOnMainThread([folderFace] { FolderFaceRef{folderFace}.setLockErrorDate(Value()); }, false);
        centre.postInfo(QVFormat("Locked '%s'.", name.c_str()), false);
        return std::nullopt;
    }

    // 5, 6. Not locked: who holds it, or why not.
    const std::string words = error->code == QVErrorBusyVolume
                                  ? busyErrorMessageWithURL(mountpoint)
                                  : QVFormat("Failed to lock '%s': %s", name.c_str(), error->description.c_str());
    QV_LOG_ERROR(QVFormat("failed to unlock folder. %s", error->description.c_str()));
    performBlockOnMainThread([folderFace] { FolderFaceRef{folderFace}.setLockErrorDate(now()); }, false);
    centre.postAlert(words, true);
    return error;
}

bool LockFolderTask::showLockingAndReadLocked(const QVRecordRef& folderFace) {
    bool locked = true;
    performBlockOnMainThread(
        [&] {
            FolderFaceRef face{folderFace};
            face.setProgressIndeterminate(Value(true));
            face.setProgressAnimate(Value(true));
            QVSetFaceStatusText(folderFace, "Locking...", false);
            // Read here, after whatever the sanity check posted.
            locked = face.locked().toBool();
        },
        true);
    return locked;
}

OperationResult LockFolderTask::executeLockActions(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    QVError error;
    if (QVFolderActionsRunner().executeLockActions(folder, &error) && error.empty()) return std::nullopt;
    QV_LOG_ERROR(QVFormat("last action failed '%s'", error.description.c_str()));
    const std::string name = QVLastPathComponent(FolderRef{folder}.mountpoint().toURLPath());
    QVNotificationCenter::defaultCenter().postAlert(
        QVFormat("The folder '%s' cannot be locked, because last action failed with error:\n%s", name.c_str(),
                 error.description.c_str()),
        true);
    return error;
}

std::string LockFolderTask::busyErrorMessageWithURL(const std::string& mountpoint) {
    std::string text = QVFormat("The folder '%s' could not be locked because it is being used by:\n\n",
                                QVLastPathComponent(mountpoint).c_str());
    const auto pids = processesUsingThisURL(mountpoint);
    if (!pids) return text;

    // A shell is shown as the terminal it runs in, as far as we can tell which.
    std::optional<std::optional<QVRunningApplication>> terminal;
    std::vector<std::string> names;
    for (const pid_t pid : *pids) {
        std::string name = appForPid(pid).value_or("");
        if (name.empty()) continue;
        if (name == "bash") {
            if (!terminal) terminal = QVRunningTerminalApplication();
            if (*terminal && !(*terminal)->localizedName().empty()) name = (*terminal)->localizedName();
        }
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    for (const auto& name : names) text += QVFormat("• %s\n", name.c_str());
    return text;
}

} // namespace qv

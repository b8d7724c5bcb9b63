#include "tasks/ChangeMountpointTask.h"

#include "disk/DiskMaster.h"
#include "disk/FolderSanity.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/LockFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

OperationResult ChangeMountpointTask::go(const QVRecordRef& folderFace) {
    const std::string name =
        QVLastPathComponent(QVFolderMountpointPath(FolderFaceRef{folderFace}.folder().as<QVRecord>()));
    OperationResult error;
    QVError sanityError;
    if (sanityCheckFolderFace(folderFace, &sanityError) != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    if (!error) {
        QVError unmountError;
        if (!LockFolderTask::showLockingAndReadLocked(folderFace) &&
            !DiskMaster::unmountDiskForFolderFace(folderFace, "", true, true, &unmountError)) {
            QV_LOG_ERROR(QVFormat("failed to unmount '%s': %s", name.c_str(), unmountError.description.c_str()));
            error = unmountError;
        }
        showSizeInfo(folderFace);
    }

    auto& centre = QVNotificationCenter::defaultCenter();
    if (!error)
        centre.postInfo(QVFormat("Locked '%s'.", name.c_str()), false);
    else
        centre.postAlert(QVFormat("Failed to lock '%s': %s", name.c_str(), error->description.c_str()), true);
    return error;
}

} // namespace qv

#include "tasks/ChangeMountpointTask.h"

#include "disk/DiskMaster.h"
#include "disk/FolderSanity.h"
#include "notify/QVNotificationCenter.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

OperationResult ChangeMountpointTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const std::string name = QVLastPathComponent(QVFolderMountpointPath(face.folder().as<QVRecord>()));
    OperationResult error;
    QVError sanityError;
    if (sanityCheckFolderFace(folderFace, &sanityError) != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    if (!error) {
        bool locked = true;
        performBlockOnMainThread(
            [&] {
                face.setProgressIndeterminate(Value(true));
                face.setProgressAnimate(Value(true));
                QVSetFaceStatusText(folderFace, "Locking...", false);
                locked = face.locked().toBool();
            },
            true);
        QVError unmountError;
        if (!locked && !DiskMaster::unmountDiskForFolderFace(folderFace, "", true, true, &unmountError)) {
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

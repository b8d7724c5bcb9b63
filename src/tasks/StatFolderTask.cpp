#include "tasks/StatFolderTask.h"

#include <cstdint>

#include "disk/FolderSanity.h"
#include "disk/SizeWalk.h"
#include "tasks/ImageToolCommand.h"
#include "tasks/ToggleSpotlightTask.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

OperationRef StatFolderTask::taskWithFolderFace(const QVRecordRef& folderFace, bool mute) {
    auto task = std::make_shared<StatFolderTask>();
    task->muteNotifications = mute;
    return makeOperation(task, folderFace);
}

OperationResult StatFolderTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    const std::string name = QVLastPathComponent(QVFolderMountpointPath(folder));
    presentFolderFace(folderFace, {.cancelable = false}, true);

    OperationResult error;
    QVError sanityError;
    if (sanityCheckFolderFace(folderFace, &sanityError) != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    uint64_t size = 0;
    if (!error) {
        bool locked = true;
        performBlockOnMainThread([&] { locked = face.locked().toBool(); }, true);
        if (locked) {
            const int64_t onDisk = fastFolderSizeAtFSRef(QVImagePathOfFace(folderFace), nullptr);
            size = onDisk > 0 ? static_cast<uint64_t>(onDisk) : 0;
        } else {
            QVError sizeError;
            size = folderSizeOfFolderFace(folderFace, false, &sizeError);
            if (size == UINT64_MAX) {
                QV_LOG_ERROR(QVFormat("failed to calculate folder size for '%s': %s", name.c_str(),
                                      sizeError.description.c_str()));
                error = sizeError;
            }
        }
    }

    if (QVFolderIsUnlocked(folder, nullptr)) {
        const bool enabled =
            ToggleSpotlightTask::spotLightEnabledForMountpoint(QVFolderMountpointPath(folder), nullptr);
        performBlockOnMainThread(
            [folderFace, enabled] { FolderFaceRef{folderFace}.setSpotlightStatus(Value(enabled)); }, false);
    }

    if (!error) {
        performBlockOnMainThread(
            [&] {
                FolderRef{folder}.setFolderSize(Value(static_cast<int64_t>(size)));
                QVDisplayFolderSizeInfo(folderFace);
            },
            true);
    }
    return error;
}

} // namespace qv

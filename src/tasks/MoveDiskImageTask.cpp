#include "tasks/MoveDiskImageTask.h"

#include "disk/DiskMaster.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/ImageToolCommand.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {

OperationRef MoveDiskImageTask::taskWithFolderFace(const QVRecordRef& folderFace, const std::string& destination) {
    auto task = std::make_shared<MoveDiskImageTask>();
    task->destination = destination;
    return makeOperation(task, folderFace);
}

OperationResult MoveDiskImageTask::go(const QVRecordRef& folderFace) {
    const std::string image = QVImagePathOfFace(folderFace);
    if (auto refused = failIfUnlocked(
            folderFace, QVFormat("The image file '%s' cannot be moved because it's currently unlocked!\nLock the "
                                 "folder to move it",
                                 image.c_str())))
        return refused;
    startIndeterminateProgress(folderFace, "Moving image file", false);

    auto& centre = QVNotificationCenter::defaultCenter();
    QVError error;
    if (DiskMaster::moveImageFileForFolderFace(folderFace, destination, &error)) {
        const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
        performBlockOnMainThread(
            [&] {
                DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setUrl(Value(URLValue{destination}));
                if (DBSubdbRef subdb = QVRecordGetSubdb(folder)) subdb->save(nullptr);
            },
            true);
        centre.postInfo(QVFormat("Image file '%s' moved successfully to\n '%s'.", QVLastPathComponent(image).c_str(),
                                 QVLastPathComponent(QVParentPath(destination)).c_str()),
                        false);
        endProgress(folderFace);
        return std::nullopt;
    }
    QV_LOG_ERROR(QVFormat("failed to move: %s. %s", image.c_str(), error.description.c_str()));
    if (error.code == QVErrorCancelled)
        centre.postInfo("Move operation cancelled", false);
    else
        centre.postAlert(error.description, true);
    endProgress(folderFace);
    return error;
}

} // namespace qv

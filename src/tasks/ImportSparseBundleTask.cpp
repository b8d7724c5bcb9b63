#include "tasks/ImportSparseBundleTask.h"

#include "notify/QVNotificationCenter.h"
#include "tasks/ImageSizeTask.h"
#include "tasks/ImageToolCommand.h"
#include "tasks/StatFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {

OperationRef ImportSparseBundleTask::taskWithFolderFace(const QVRecordRef& folderFace, std::function<void()> callback) {
    auto task = std::make_shared<ImportSparseBundleTask>();
    task->callback = std::move(callback);
    return makeOperation(task, folderFace);
}

OperationResult ImportSparseBundleTask::go(const QVRecordRef& folderFace) {
    startIndeterminateProgress(folderFace, "Importing sparse bundle", false);
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    const DBSubdbRef subdb = QVRecordGetSubdb(folder);
    // The set is changed on the main thread only; a failed save is left to the
    // next one.
    const auto save = [&] {
        performBlockOnMainThread(
            [&] {
                if (subdb) subdb->save(nullptr);
            },
            true);
    };
    performBlockOnMainThread(
        [&] {
            if (subdb) subdb->addFolder(folder);
        },
        true);
    save();

    std::make_shared<ImageSizeTask>()->go(folderFace);
    std::make_shared<StatFolderTask>()->go(folderFace);
    QVNotificationCenter::defaultCenter().postInfo(
        QVFormat("Image file '%s' imported successfully'.", QVLastPathComponent(QVImagePathOfFace(folderFace)).c_str()),
        false);
    save();
    endProgress(folderFace);
    return std::nullopt;
}

} // namespace qv

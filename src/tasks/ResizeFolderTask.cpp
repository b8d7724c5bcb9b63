#include "tasks/ResizeFolderTask.h"

#include "disk/DiskInfoFile.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/ImageSizeTask.h"
#include "tasks/ImageToolCommand.h"
#include "toolkit/Log.h"
#include "vault/Schemas.h"

namespace qv {

OperationRef ResizeFolderTask::taskWithFolderFace(const QVRecordRef& folderFace, uint64_t size) {
    auto task = std::make_shared<ResizeFolderTask>();
    task->size = size;
    return makeOperation(task, folderFace);
}

uint64_t ResizeFolderTask::sizeForIncrease(const QVRecordRef& folder, uint64_t increasedCapacity) {
    const Value capacity = DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.capacity();
    const int64_t recorded = capacity.isNull() ? 0 : capacity.toInt();
    return static_cast<uint64_t>(recorded > 0 ? recorded : 0) + increasedCapacity;
}

OperationResult ResizeFolderTask::go(const QVRecordRef& folderFace) {
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    return QVRunWithFolderLocked(
        *this, folderFace,
        "The image file '%s' cannot be resized because it's currently unlocked!\nLock the folder to resize it",
        "Resizing disk image", [&] {
            const std::string image = QVImagePathOfFace(folderFace);
            const ImageToolRun run = QVRunImageToolForFace(
                folderFace, {"resize", "-stdinpass", "-size", QVFormat("%lu", static_cast<unsigned long>(size)), image},
                true);
            auto& centre = QVNotificationCenter::defaultCenter();
            imageError = run.error;
            if (run.error) {
                centre.postAlert(
                    QVFormat("Error resizing image file\n'%s'\n%s", run.error->description.c_str(), run.output.c_str()),
                    true);
            } else {
                centre.postInfo("Image file resized successfully", false);
                QVDiskInfoSerializeFromFolder(folder); // logs its own failure
            }
            std::make_shared<ImageSizeTask>()->go(folderFace);
        });
}

} // namespace qv

#pragma once
// Changes the capacity of a folder's image and of the file system inside
// (`qv-image resize`). The folder is locked for it and unlocked afterwards,
// also when the resize failed; the capacity is read again either way.
#include <cstdint>

#include "tasks/BaseFolderTask.h"

namespace qv {

class ResizeFolderTask : public FolderTask<ResizeFolderTask> {
public:
    using FolderTask<ResizeFolderTask>::taskWithFolderFace;
    // `size`: the new capacity in bytes; the resize sheet gives the recorded
    // capacity plus the increase the user chose (sizeForIncrease).
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, uint64_t size);

    // What the resize sheet asks for: the recorded capacity plus the increase.
    static uint64_t sizeForIncrease(const QVRecordRef& folder, uint64_t increasedCapacity);

    OperationResult go(const QVRecordRef& folderFace) override;

    uint64_t size = 0;
    // After go: why qv-image failed, nothing when it resized.
    OperationResult imageError;
};

} // namespace qv

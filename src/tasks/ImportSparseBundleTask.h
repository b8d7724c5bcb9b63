#pragma once
// Makes an encrypted image that already exists a protected folder of the set:
// the folder's records (made by the folder list from what the import screen
// took) join the set, and the folder's capacity and size are read. The image
// stays where it lies and keeps its own password.
#include <functional>

#include "tasks/BaseFolderTask.h"

namespace qv {

class ImportSparseBundleTask : public FolderTask<ImportSparseBundleTask> {
public:
    using FolderTask<ImportSparseBundleTask>::taskWithFolderFace;
    // `callback` is kept with the task; nothing calls it.
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, std::function<void()> callback);

    OperationResult go(const QVRecordRef& folderFace) override;

    std::function<void()> callback;
};

} // namespace qv

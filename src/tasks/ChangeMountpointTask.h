#pragma once
// Locks a folder whose mount point has changed under it (the folder was moved
// or renamed while unlocked): its volume is taken away forcefully, since the
// folder's recorded path no longer leads to what holds it.
#include "tasks/BaseFolderTask.h"

namespace qv {

class ChangeMountpointTask : public FolderTask<ChangeMountpointTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;
};

} // namespace qv

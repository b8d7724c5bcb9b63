#pragma once
// Gives the unused space of a folder's image back to the disk (`qv-image
// compact`). The folder is locked for it and unlocked afterwards, also when
// the compaction failed (see tasks/ImageToolCommand.h).
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class CompactFolderTask : public FolderTask<CompactFolderTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // The space the compaction gave back, as qv-image words it: the stretch of
    // `output` between "reclaimed " and " out of" (found ignoring case); empty
    // when either is missing.
    static std::string claimedSpace(const std::string& output);

    // After go: why qv-image failed (nothing when it compacted), and the space
    // it gave back as it worded it.
    OperationResult imageError;
    std::string claimed;
};

} // namespace qv

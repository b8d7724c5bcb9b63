#pragma once
// Moves a locked folder's image to another place (`destination`: its new path,
// name included) and points the folder's record there. The move polls the
// face's cancel; an unlocked folder is refused, as its image is in use.
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class MoveDiskImageTask : public FolderTask<MoveDiskImageTask> {
public:
    using FolderTask<MoveDiskImageTask>::taskWithFolderFace;
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, const std::string& destination);

    OperationResult go(const QVRecordRef& folderFace) override;

    std::string destination;
};

} // namespace qv

#pragma once
// Refreshes a folder's figures: its size (the contents of an unlocked folder,
// the image on disk of a locked one) and, while it is unlocked, whether search
// indexing is on. Queued after every successful unlock; works on a folder in
// any state and offers no cancel.
#include "tasks/BaseFolderTask.h"

namespace qv {

class StatFolderTask : public FolderTask<StatFolderTask> {
public:
    using FolderTask<StatFolderTask>::taskWithFolderFace;
    // With `mute` the task is asked to keep quiet; it posts nothing either way.
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, bool mute);

    OperationResult go(const QVRecordRef& folderFace) override;

    bool muteNotifications = false;
};

} // namespace qv

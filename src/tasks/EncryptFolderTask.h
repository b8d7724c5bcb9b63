#pragma once
// Encrypting a folder: its contents go into a new encrypted image in the
// folder's storage, the folder itself goes to the desktop Trash, and an empty
// folder is made at its path to serve as the mount point.
//
// The order of the steps is what keeps the user's files safe. Nothing that
// can't be undone happens before a complete image stands at its final place;
// the source is only ever moved to the Trash, never deleted; and any failure
// before the Trash step deletes the new image and leaves the source as it was,
// taking the folder's record out of the set again.
//
// The folder's record is in the set (not yet saved) and its face in the folder
// list when the task is queued; the task saves the record first, marked not yet
// encrypted, so that a crash at any later point leaves a record that the
// sanity checks understand.
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class EncryptFolderTask : public FolderTask<EncryptFolderTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // Removes the directory if it could be listed and held nothing. A Temp
    // directory that another task is using stays.
    static void removeTempFolder(const std::string& path);

    // Where the folder's image would go by default: the directory of the
    // QVDiskImageDestinationPath default (when it is set to an existing
    // directory) with the folder's name appended; otherwise the folder's
    // parent's parent with the folder's name appended.
    static std::string diskDefaultDestination(const QVRecordRef& folderFace);

    // The range of a new image password: its length, and its characters (printable
    // ASCII without the space).
    static constexpr uint32_t kPasswordMinLength = 30;
    static constexpr uint32_t kPasswordMaxLength = 40;
};

} // namespace qv

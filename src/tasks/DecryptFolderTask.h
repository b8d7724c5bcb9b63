#pragma once
// Restoring a folder: the contents of its image are copied back to the
// folder's path as plain files, the image goes to the Trash and the folder
// leaves its Folder Set.
//
// The worst case is a restore that stops half-way, leaving plain copies of
// secret files in a folder that is supposed to stay protected. So the image is
// never changed: it is mounted on a rescue folder in its storage's Temp
// (disk/RescueFolder.h), copied out, and only goes to the Trash once the copy
// is whole. A copy that fails or is cancelled deletes from the folder exactly
// the names the image holds (and the copy's own working folder), so that
// nothing the restore made stays in the locked folder; a restore that died
// leaves such copies, and the next one deletes them before it copies afresh.
//
// A failure of the image itself (mount, size, copy) ends with the rescue: the
// user is asked for a place to move the image to and gets its password.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "disk/RescueFolder.h"
#include "tasks/BaseFolderTask.h"

namespace qv {

class DecryptFolderTask : public FolderTask<DecryptFolderTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // The rescue folder of a restore in the storage's Temp, made and claimed;
    // null (logged) when it can't be made.
    static std::unique_ptr<QVRescueFolderClaim> rescueFolderURL(const QVRecordRef& storage);

    // What removing the copies of a restore left undone: a listing that failed
    // ("encrypted" for the image's, "folder" for the folder's, with the
    // reason), and the items that could not be deleted.
    struct CopiesCleanup {
        std::string unlisted;
        std::string listError;
        std::vector<std::string> undeleted;
        bool clean() const { return unlisted.empty() && undeleted.empty(); }
    };
    // Deletes from `folder` every item whose name is also in `image` (the
    // image's volume root) and every working folder of an unfinished copy;
    // other items stay.
    static CopiesCleanup removeRestoredCopies(const std::string& image, const std::string& folder);

    // The count of folders to unlock at login lives above the tasks: whoever
    // keeps it installs how to change it. A restored (or failed) folder marked
    // to unlock at login no longer counts.
    using AutounlockCounter = std::function<void(int64_t delta)>;
    static void setAutounlockCounter(AutounlockCounter counter);
};

} // namespace qv

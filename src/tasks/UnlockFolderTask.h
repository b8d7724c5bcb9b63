#pragma once
// Unlocking a folder: its image is mounted on the folder's own path, so that
// the decrypted contents stand where the folder stands; then the folder's
// unlock actions run, the folder may be opened, and its size is measured
// again. Used for the user's unlock commands, for opening a locked folder and
// for unlocking without asking at start.
//
// An unlock is refused before anything is mounted while an application that
// one of the folder's Open actions names is running: the action would open a
// second instance on a half-ready folder, or none at all.
//
// A folder that is already mounted isn't mounted again, but everything after
// the mount (actions, opening, the message) runs as for a fresh unlock. A
// failing unlock action is reported and doesn't make the unlock a failure.
#include <functional>

#include "tasks/BaseFolderTask.h"

namespace qv {

class UnlockFolderTask : public FolderTask<UnlockFolderTask> {
public:
    using FolderTask<UnlockFolderTask>::taskWithFolderFace;
    // The task's operation; with `openFolder` the folder opens in the file
    // manager once it is unlocked.
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, bool openFolder);

    OperationResult go(const QVRecordRef& folderFace) override;

    // Runs the folder's unlock actions; reports a failure (log and sticky
    // alert) and returns its error, nothing on success.
    OperationResult executeUnlockActions(const QVRecordRef& folderFace);

    // A folder directly on the Desktop is mounted where file managers show it;
    // every other folder silently (its path is where the user looks for it).
    static bool shouldSilent(const QVRecordRef& folder);

    // Whether the volume's name no longer matches the folder's: the folder was
    // renamed while it was locked. A label holds 16 bytes, so a longer folder
    // name is compared by the part that a label keeps.
    static bool volumeNameDiffers(const std::string& volumeName, const std::string& folderName);

    // Who measures the folder after a successful unlock: makes the operation of
    // a size task for the face, which the unlock queues behind itself. Set by
    // whoever provides the size task; while none is set, no size task is queued
    // and the row keeps the size it had.
    using StatTaskMaker = std::function<OperationRef(const QVRecordRef& folderFace)>;
    static void setStatTaskMaker(StatTaskMaker maker);

    bool openFolder = false;
};

} // namespace qv

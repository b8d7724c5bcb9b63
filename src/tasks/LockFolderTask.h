#pragma once
// Locking a folder: the folder's lock actions run first (an application that
// refuses to quit holds the lock back), then its volume is taken away, which
// leaves the empty folder at the path.
//
// A lock is never forced and never retried here: a volume in use stays
// mounted, and the user is told who holds it. Each failure notes its time in
// the face's `lockErrorDate`, which keeps automatic locking from trying again
// at once; a successful lock clears it.
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class LockFolderTask : public FolderTask<LockFolderTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // Runs the folder's lock actions; reports a failure (log and sticky alert)
    // and returns its error, nothing on success.
    OperationResult executeLockActions(const QVRecordRef& folderFace);

    // The row shows "Locking..." with an animated bar (main thread, waiting);
    // answers the face's `locked` as it stands then.
    static bool showLockingAndReadLocked(const QVRecordRef& folderFace);

    // "The folder '<name>' could not be locked because it is being used by:"
    // and a line for each process that holds something under the mount point
    // (by lsof), each name once. A shell ("bash") is shown under the name of
    // the terminal application while one runs, as that is what the user sees.
    static std::string busyErrorMessageWithURL(const std::string& mountpoint);
};

} // namespace qv

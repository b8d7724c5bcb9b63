#pragma once
// Folder actions: what runs when a folder unlocks or locks. A folder carries
// two lists of FolderAction records: `unlockActions` run after it unlocks,
// `lockActions` before it locks. An action opens an item (1), asks an
// application to quit (2), or unlocks (3) or locks (4) another folder of the
// same Folder Set, whose own actions then run in turn.
//
// Order: a list runs sorted by `priority`, ascending, equal priorities in list
// order. The priorities that a new action gets (QVFolderActionCreate) make an
// unlock list unlock its other folders before it opens anything, and a lock
// list quit its applications before it locks other folders.
//
// Failure: the first action that fails ends the run, and nothing that ran
// before it is undone. One deliberate exception: a Lock Folder action whose
// folder is no longer in the list succeeds with its error set, so the run goes
// on (a later Lock Folder or Open action overwrites that error, a Quit leaves
// it); the tasks count a run as failed when it returned false or left an error.
//
// Chains: an Unlock or Lock Folder action runs the other folder's task body
// directly on this thread, not through the queue, so a chain runs depth first
// and each link is done before the next action starts. A folder whose actions
// are already running further up the same chain isn't run again: two folders
// that unlock each other would otherwise call each other without end.
//
// An ActionsManager has no state; the tasks reach the one that start-up installs
// as their FolderActionsRunner (tasks/FolderActionsRunner.h). It runs on the
// task's thread, never the main thread: asking an application to quit waits up
// to 5 seconds per instance there.
#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"
#include "tasks/FolderActionsRunner.h"
#include "vault/QVRecord.h"

namespace qv {

class QVRunningApplication;

// Action codes of FolderAction records.
enum QVFolderActionCode : int64_t {
    QVActionOpen = 1,
    QVActionQuit = 2,
    QVActionUnlockFolder = 3,
    QVActionLockFolder = 4,
};

// The code of an application that didn't quit, and of a folder action whose
// folder is gone.
inline constexpr long QVErrorActionFailed = 1103;

// How long an application gets to quit, and how often it is looked at meanwhile.
inline constexpr double QVCloseAppTimeoutSeconds = 5.0;
inline constexpr unsigned QVCloseAppPollMicroseconds = 500000;

class ActionsManager : public FolderActionsRunner {
public:
    // Run the folder's unlock or lock list through executeActions.
    bool executeUnlockActions(const QVRecordRef& folder, QVError* error = nullptr) override;
    bool executeLockActions(const QVRecordRef& folder, QVError* error = nullptr) override;

    // Runs the list in the order of its priorities (see the top of this file).
    // An empty or absent list succeeds at once and leaves *error alone.
    bool executeActions(const ArrayRef& actions, const QVRecordRef& folder, QVError* error = nullptr);

    // One action, by its code; an unknown code fails with 1001 "Unknown
    // operation type!".
    bool executeAction(const QVRecordRef& action, const QVRecordRef& folder, QVError* error = nullptr);

    // 1: an application entry is launched, any other item opened with its
    // default application. 1001 "Couldn't open: <path>" on failure (also for
    // an item that isn't there).
    bool executeOpen(const QVRecordRef& action, const QVRecordRef& folder, QVError* error = nullptr);
    // 2: asks every running instance of the application that `parameter` names
    // to quit, one after the other, showing "Closing <name>..." on the row of
    // the folder being locked. The first that doesn't quit in time fails the
    // action with 1103. An absent parameter, or no instance running, succeeds.
    bool executeClose(const QVRecordRef& action, const QVRecordRef& folder, QVError* error = nullptr);
    // 3 and 4: the other folder's unlock or lock, run here. *error gets what
    // that task ended with (cleared on success). A folder that isn't in the list
    // gives 1103 "Folder not found in the database: <this folder's name>":
    // Unlock Folder then fails, Lock Folder succeeds with the error left set.
    bool executeUnlock(const QVRecordRef& action, const QVRecordRef& folder, QVError* error = nullptr);
    bool executeLock(const QVRecordRef& action, const QVRecordRef& folder, QVError* error = nullptr);

    // Asks the instance to quit and waits up to 5 seconds, looking every half
    // second. False at once when the request is refused; otherwise whether it
    // has ended. Never forces it. Blocks the calling thread.
    bool closeApp(const QVRunningApplication& application);

    // The face on show whose folder's mount point is `url`; null when none is.
    // Reads the folder list on the main thread (waiting, unless called there).
    static QVRecordRef faceForFolder(const std::string& url);

    // The bundle identifiers (desktop file ids) of the Open actions of the
    // folder's lock list (`lock`) or unlock list, in list order.
    static std::vector<std::string> openAppActionsInFolder(const QVRecordRef& folder, bool lock);
    // The name of the first running application among those that the folder's
    // unlock list opens; nullopt when none runs.
    std::optional<std::string> appInUnlockActionsIsRunning(const QVRecordRef& folder) override;
};

} // namespace qv

#pragma once
// What a folder's own actions are to the tasks that unlock and lock it. The
// actions run in the automation layer above, whose Unlock and Lock Folder
// actions run these very tasks on other folders; so the tasks reach the
// actions through this one runner, which that layer installs at start-up
// (app/LayerWiring.h).
#include <optional>
#include <string>

#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

class FolderActionsRunner {
public:
    virtual ~FolderActionsRunner() = default;
    // Run the folder's unlock or lock list; false, or an error left set, is a
    // failed run (automation/ActionsManager.h says how a run goes).
    virtual bool executeUnlockActions(const QVRecordRef& folder, QVError* error) = 0;
    virtual bool executeLockActions(const QVRecordRef& folder, QVError* error) = 0;
    // The name of an application that an Open action of the unlock list names
    // and that is running already, if any.
    virtual std::optional<std::string> appInUnlockActionsIsRunning(const QVRecordRef& folder) = 0;
};

// The process's runner; installed once, before any task runs.
void QVSetFolderActionsRunner(FolderActionsRunner* runner);
// The runner. Without one a folder whose list holds actions can't be unlocked
// or locked: the run fails with 1001 rather than skip what the user asked for.
FolderActionsRunner& QVFolderActionsRunner();

} // namespace qv

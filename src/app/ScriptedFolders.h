#pragma once
// Unlocking and locking one folder from outside the interface (a script over
// the session bus): the password opens its Folder Set, the folder must belong
// to that set, and the task runs on the process's task queue while the caller
// waits. The face on show is used when the folder list shows the folder, so
// its row follows the task.
//
// Both block until the task has ended: call them on a thread of their own,
// never on the main thread (the tasks need it) nor on the task queue.
#include <string>

#include "vault/DBMaster.h"

namespace qv {

struct QVScriptAnswer {
    bool ok = false;
    std::string message;
};

QVScriptAnswer QVUnlockFolderForScript(const DBMasterRef& master, const std::string& mountpath,
                                       const std::string& password);
QVScriptAnswer QVLockFolderForScript(const DBMasterRef& master, const std::string& mountpath,
                                     const std::string& password);

} // namespace qv

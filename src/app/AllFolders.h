#pragma once
// The folders of the list taken together: those locked or unlocked, and the
// menu's "Lock All" and "Unlock All" that queue one task for each. Main thread.
#include <cstddef>
#include <vector>

#include "vault/QVRecord.h"

namespace qv {

// The faces on show whose folder is (`locked`) or is not mounted, by the file
// system's answer; empty when no Folder Set is on show.
std::vector<QVRecordRef> QVFoldersInLockedState(bool locked);

// One locking task per unlocked folder, one unlocking task per locked one;
// each answers how many were queued.
size_t QVLockAllFolders();
size_t QVUnlockAllFolders();

} // namespace qv

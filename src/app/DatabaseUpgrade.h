#pragma once
// The start-up side of the database upgrade (deniability/MigrationTask.h): a
// database that needs it goes through it before anything else is done with
// it, and what an interrupted upgrade left is cleaned away at the next start.
#include <memory>

#include "app/FolderTaskMark.h"
#include "vault/DBMaster.h"

namespace qv {

// The upgrade is run by one process at a time: whoever runs it holds this mark
// (null when another process holds it).
std::unique_ptr<FolderTaskMark> QVHoldUpgradeMark();

// What an interrupted upgrade left. While the database still needs the upgrade,
// the master file is the old one and the images in the note belong to nobody:
// they are deleted. Once it doesn't, the file that refers to them was written
// and only the note goes. Nothing is done while another process upgrades.
void QVCleanUpInterruptedUpgrade(const DBMasterRef& master, bool needsUpgrade);

} // namespace qv

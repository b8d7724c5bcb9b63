#pragma once
// The one queue of folder tasks of the process. The desktop application and qv
// put every task on it through addFolderTask (tasks/BaseFolderTask.h), so that
// two tasks of one folder never overlap, whichever front end started them.
#include "toolkit/OperationQueue.h"

namespace qv {

OperationQueue& QVAppOperationQueue();

} // namespace qv

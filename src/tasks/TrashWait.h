#pragma once
// The desktop's Trash is reached on the main thread; a task hands it an item
// and waits for the answer, looking every 2 ms, so that the main thread never
// waits for the task.
#include <string>

#include "toolkit/QVError.h"

namespace qv {

struct QVTrashOutcome {
    bool trashed = false;
    QVError error;
    std::string strayPath; // where the item went when it was not a Trash (disk/Trash.h)
};

// Moves `path` to the Trash on the main thread and waits for it. Task threads only.
QVTrashOutcome QVTrashOnMainThreadAndWait(const std::string& path);

} // namespace qv

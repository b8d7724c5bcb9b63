#include "tasks/TaskQueue.h"

namespace qv {

OperationQueue& QVAppOperationQueue() {
    // Never destroyed: a task still running at exit must not find its queue gone.
    static OperationQueue* queue = new OperationQueue();
    return *queue;
}

} // namespace qv

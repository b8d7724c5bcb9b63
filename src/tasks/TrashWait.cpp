#include "tasks/TrashWait.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "disk/Trash.h"
#include "toolkit/MainThread.h"

namespace qv {

QVTrashOutcome QVTrashOnMainThreadAndWait(const std::string& path) {
    struct Shared {
        std::atomic<bool> done{false};
        std::mutex mutex;
        QVTrashOutcome outcome;
    };
    auto shared = std::make_shared<Shared>();
    performBlockOnMainThread([path, shared] {
        QVTrashOutcome outcome;
        outcome.trashed = QVMoveToTrash(path, &outcome.error, &outcome.strayPath);
        {
            std::lock_guard lock(shared->mutex);
            shared->outcome = std::move(outcome);
        }
        shared->done.store(true);
    });
    while (!shared->done.load()) ::usleep(2000);
    std::lock_guard lock(shared->mutex);
    return shared->outcome;
}

} // namespace qv

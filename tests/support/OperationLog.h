#pragma once
// Operations that only note a line when they run: stand-ins for the tasks a
// test asks the folder list to queue, so it can see which ones came, and for
// which folders. The queue runs them side by side, so the lines are read back
// sorted.
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "toolkit/OperationQueue.h"

namespace qv::test {

class OperationLog {
public:
    OperationRef note(std::string line) {
        return BlockOperation::blockOperationWithVoidBlock([this, line = std::move(line)] {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    // Waits for the queue, then the lines noted so far, sorted.
    std::vector<std::string> sorted(OperationQueue& queue) {
        queue.waitUntilAllOperationsAreFinished();
        std::lock_guard lock(mutex_);
        auto out = lines_;
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace qv::test

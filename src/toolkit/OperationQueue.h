#pragma once
// Operations and the queue that runs them.
//
// An Operation is one piece of work that runs once, on a worker thread of the
// queue it was added to, and keeps its result (nothing for success, or an error)
// for as long as the operation lives. An operation may depend on others, also
// on operations of other queues: it starts only when every one of them has
// finished. A dependency that has already finished counts as met at once.
//
// An OperationQueue starts each operation as soon as it is ready. By default
// there is no limit on how many run side by side (a worker per ready operation,
// threads being reused from a pool); a maximum can be set. Destroying a queue
// waits until every operation in it has finished, so an operation never outlives
// the queue that runs it.
//
// Cancelling is cooperative: `cancel` only sets a flag. An operation cancelled
// before it started finishes without running, whatever it depends on; one that
// is running is told only through `isCancelled`, which its body may poll.
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <QThreadPool>

#include "toolkit/QVError.h"

namespace qv {

class OperationQueue;
class Operation;
using OperationRef = std::shared_ptr<Operation>;
// What an operation ends with: nothing for success, or the error it failed with.
using OperationResult = std::optional<QVError>;

class Operation : public std::enable_shared_from_this<Operation> {
public:
    Operation() = default;
    virtual ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    // All dependencies have finished, or the operation was cancelled.
    bool isReady() const;
    bool isExecuting() const;
    bool isFinished() const;
    bool isCancelled() const;
    // Sets the cancelled flag; see the top of this file. No effect once finished.
    void cancel();

    // The result the body returned; nothing before the operation has finished,
    // and nothing for an operation that was cancelled before it started.
    OperationResult result() const;

    // Makes this operation wait for `operation`. Refused (false, error 1003) when
    // this operation is already in a queue or has run, for itself, for an
    // operation that already depends on this one (which would never run), and
    // for operations not held by a shared_ptr.
    bool addDependency(const OperationRef& operation, QVError* error = nullptr);
    std::vector<OperationRef> dependencies() const;

    // Blocks until the operation has finished. Never call it from the
    // operation's own body.
    void waitUntilFinished() const;

protected:
    // The body; runs once on a worker thread. An exception that escapes it is
    // logged and becomes error 1003.
    virtual OperationResult main() = 0;
    // Called on the worker thread after the body, before the operation counts as
    // finished: the place to let go of what only the run needed.
    virtual void didFinishRunning() {}

private:
    friend class OperationQueue;
    enum class State { Idle, Waiting, Submitted, Executing, Finished };

    // Called by a dependency when it finishes; answers the queue to hand this
    // operation to when it has become ready.
    OperationQueue* dependencyDidFinish();

    // Taken before the queue's mutex when both are needed, never after it.
    mutable std::mutex mutex_;
    mutable std::condition_variable finishedCondition_;
    State state_ = State::Idle;
    bool cancelled_ = false;
    int unfinishedDependencies_ = 0;
    OperationQueue* queue_ = nullptr;
    OperationResult result_;
    std::vector<OperationRef> dependencies_;
    std::vector<std::weak_ptr<Operation>> dependents_;
};

// An operation whose body is a closure. The closure is released once it has run.
class BlockOperation : public Operation {
public:
    explicit BlockOperation(std::function<OperationResult()> block);
    static std::shared_ptr<BlockOperation> blockOperationWithBlock(std::function<OperationResult()> block);
    // For a body that cannot fail.
    static std::shared_ptr<BlockOperation> blockOperationWithVoidBlock(std::function<void()> block);

protected:
    OperationResult main() override;
    void didFinishRunning() override;

private:
    std::function<OperationResult()> block_;
};

class OperationQueue {
public:
    // No limit on how many operations run at once.
    static constexpr int DefaultMaxConcurrentOperationCount = -1;

    OperationQueue();
    // Waits for every operation in the queue to finish.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    // Queues the operation; it starts when it is ready. Refused (false, error 1003)
    // for a null operation, one already in a queue or already run, and one not held
    // by a shared_ptr.
    bool addOperation(const OperationRef& operation, QVError* error = nullptr);
    // Queues each in turn (stopping at the first refused), then, if asked, waits for
    // every one of them to finish.
    bool addOperations(const std::vector<OperationRef>& operations, bool waitUntilFinished,
                       QVError* error = nullptr);
    // Queues a closure that cannot fail; returns its operation.
    OperationRef addOperationWithBlock(std::function<void()> block);

    // The operations queued or running, in the order they were added.
    std::vector<OperationRef> operations() const;
    size_t operationCount() const;

    int maxConcurrentOperationCount() const;
    // A count of zero or less means no limit.
    void setMaxConcurrentOperationCount(int count);

    // Cancels every operation in the queue (see Operation::cancel).
    void cancelAllOperations();
    // Blocks until the queue is empty. Never call it from an operation of this queue.
    void waitUntilAllOperationsAreFinished() const;

private:
    friend class Operation;
    void submit(const OperationRef& operation);
    void execute(const OperationRef& operation);

    mutable std::mutex mutex_;
    mutable std::condition_variable emptyCondition_;
    std::vector<OperationRef> operations_;
    int maxConcurrentOperationCount_ = DefaultMaxConcurrentOperationCount;
    // Last, so that it is destroyed first: its destructor waits for the workers,
    // which still touch the members above on their way out.
    QThreadPool pool_;
};

} // namespace qv

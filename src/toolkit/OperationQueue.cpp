#include "toolkit/OperationQueue.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <set>

#include "toolkit/Log.h"

namespace qv {

namespace {

// Serialises changes to the dependency graph, so that the test for a cycle and
// the new edge are one step. Taken before any operation's own mutex, never after.
std::mutex& graphMutex() {
    static std::mutex mutex;
    return mutex;
}

bool refuse(QVError* error, const std::string& text) {
    QV_LOG_ERROR(text);
    QVSetAppError(error, QVErrorRefused, text);
    return false;
}

} // namespace

// ---------------------------------------------------------------------------
// Operation

Operation::~Operation() = default;

bool Operation::isReady() const {
    std::lock_guard lock(mutex_);
    return cancelled_ || unfinishedDependencies_ == 0;
}

bool Operation::isExecuting() const {
    std::lock_guard lock(mutex_);
    return state_ == State::Executing;
}

bool Operation::isFinished() const {
    std::lock_guard lock(mutex_);
    return state_ == State::Finished;
}

bool Operation::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

void Operation::cancel() {
    OperationQueue* queue = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (state_ == State::Finished) return;
        cancelled_ = true;
        // A cancelled operation no longer waits for its dependencies.
        if (state_ == State::Waiting) {
            state_ = State::Submitted;
            queue = queue_;
        }
    }
    if (queue) queue->submit(shared_from_this());
}

OperationResult Operation::result() const {
    std::lock_guard lock(mutex_);
    return state_ == State::Finished ? result_ : std::nullopt;
}

bool Operation::addDependency(const OperationRef& operation, QVError* error) {
    if (!operation) return refuse(error, "no operation to depend on");
    if (operation.get() == this) return refuse(error, "an operation can't depend on itself");
    if (weak_from_this().expired()) return refuse(error, "an operation must be held by a shared_ptr");

    std::lock_guard graph(graphMutex());
    // Walk what `operation` waits for, directly or not; finding this one means
    // the two would wait for each other forever.
    std::vector<OperationRef> pending{operation};
    std::set<const Operation*> seen;
    while (!pending.empty()) {
        OperationRef next = std::move(pending.back());
        pending.pop_back();
        if (next.get() == this) return refuse(error, "the dependency would make a cycle");
        if (!seen.insert(next.get()).second) continue;
        std::lock_guard lock(next->mutex_);
        pending.insert(pending.end(), next->dependencies_.begin(), next->dependencies_.end());
    }

    std::scoped_lock lock(mutex_, operation->mutex_);
    if (state_ != State::Idle)
        return refuse(error, "dependencies can't change once an operation is queued");
    if (std::find(dependencies_.begin(), dependencies_.end(), operation) != dependencies_.end()) return true;
    dependencies_.push_back(operation);
    if (operation->state_ != State::Finished) {
        operation->dependents_.push_back(weak_from_this());
        ++unfinishedDependencies_;
    }
    return true;
}

std::vector<OperationRef> Operation::dependencies() const {
    std::lock_guard lock(mutex_);
    return dependencies_;
}

void Operation::waitUntilFinished() const {
    std::unique_lock lock(mutex_);
    finishedCondition_.wait(lock, [this] { return state_ == State::Finished; });
}

OperationQueue* Operation::dependencyDidFinish() {
    std::lock_guard lock(mutex_);
    --unfinishedDependencies_;
    if (unfinishedDependencies_ == 0 && state_ == State::Waiting) {
        state_ = State::Submitted;
        return queue_;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// BlockOperation

BlockOperation::BlockOperation(std::function<OperationResult()> block) : block_(std::move(block)) {}

std::shared_ptr<BlockOperation> BlockOperation::blockOperationWithBlock(std::function<OperationResult()> block) {
    return std::make_shared<BlockOperation>(std::move(block));
}

std::shared_ptr<BlockOperation> BlockOperation::blockOperationWithVoidBlock(std::function<void()> block) {
    return std::make_shared<BlockOperation>([block = std::move(block)]() -> OperationResult {
        if (block) block();
        return std::nullopt;
    });
}

OperationResult BlockOperation::main() {
    return block_ ? block_() : std::nullopt;
}

void BlockOperation::didFinishRunning() {
    // Whatever the closure captured goes now, not when the last holder of the
    // operation lets go: a capture may hold something that holds the operation.
    block_ = nullptr;
}

// ---------------------------------------------------------------------------
// OperationQueue

OperationQueue::OperationQueue() {
    pool_.setMaxThreadCount(INT_MAX);
}

OperationQueue::~OperationQueue() {
    waitUntilAllOperationsAreFinished();
    pool_.waitForDone();
}

bool OperationQueue::addOperation(const OperationRef& operation, QVError* error) {
    if (!operation) return refuse(error, "no operation to queue");
    bool ready = false;
    {
        std::lock_guard operationLock(operation->mutex_);
        if (operation->state_ != Operation::State::Idle)
            return refuse(error, "the operation is already queued or has run");
        {
            // In the list before it can run, so that it can't finish (and leave the
            // list) before it has entered it.
            std::lock_guard lock(mutex_);
            operations_.push_back(operation);
        }
        operation->queue_ = this;
        ready = operation->cancelled_ || operation->unfinishedDependencies_ == 0;
        operation->state_ = ready ? Operation::State::Submitted : Operation::State::Waiting;
    }
    if (ready) submit(operation);
    return true;
}

bool OperationQueue::addOperations(const std::vector<OperationRef>& operations, bool waitUntilFinished,
                                   QVError* error) {
    size_t added = 0;
    bool ok = true;
    for (const auto& operation : operations) {
        if (!addOperation(operation, error)) {
            ok = false;
            break;
        }
        ++added;
    }
    if (waitUntilFinished)
        for (size_t i = 0; i < added; ++i) operations[i]->waitUntilFinished();
    return ok;
}

OperationRef OperationQueue::addOperationWithBlock(std::function<void()> block) {
    OperationRef operation = BlockOperation::blockOperationWithVoidBlock(std::move(block));
    addOperation(operation);
    return operation;
}

std::vector<OperationRef> OperationQueue::operations() const {
    std::lock_guard lock(mutex_);
    return operations_;
}

size_t OperationQueue::operationCount() const {
    std::lock_guard lock(mutex_);
    return operations_.size();
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(mutex_);
    return maxConcurrentOperationCount_;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    std::lock_guard lock(mutex_);
    maxConcurrentOperationCount_ = count > 0 ? count : DefaultMaxConcurrentOperationCount;
    pool_.setMaxThreadCount(count > 0 ? count : INT_MAX);
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations()) operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() const {
    std::unique_lock lock(mutex_);
    emptyCondition_.wait(lock, [this] { return operations_.empty(); });
}

void OperationQueue::submit(const OperationRef& operation) {
    pool_.start([this, operation] { execute(operation); });
}

void OperationQueue::execute(const OperationRef& operation) {
    bool cancelled;
    {
        std::lock_guard lock(operation->mutex_);
        cancelled = operation->cancelled_;
        if (!cancelled) operation->state_ = Operation::State::Executing;
    }

    OperationResult result;
    if (!cancelled) {
        // Nothing may unwind into the pool's thread: the queue would never hear
        // that the operation ended.
        try {
            result = operation->main();
        } catch (const std::exception& exception) {
            QV_LOG_ERROR(QVFormat("operation ended by an exception: %s", exception.what()));
            result = QVError{QVAppErrorDomain(), QVErrorRefused, exception.what()};
        } catch (...) {
            QV_LOG_ERROR("operation ended by an unknown exception");
            result = QVError{QVAppErrorDomain(), QVErrorRefused, "unknown exception"};
        }
    }
    try {
        operation->didFinishRunning();
    } catch (...) {
        QV_LOG_ERROR("operation's clean-up threw");
    }

    std::vector<std::weak_ptr<Operation>> dependents;
    {
        // Finished and out of the queue in one step: whoever sees the one sees the other.
        std::lock_guard operationLock(operation->mutex_);
        operation->result_ = std::move(result);
        operation->state_ = Operation::State::Finished;
        operation->queue_ = nullptr;
        dependents.swap(operation->dependents_);
        {
            std::lock_guard lock(mutex_);
            auto it = std::find(operations_.begin(), operations_.end(), operation);
            if (it != operations_.end()) operations_.erase(it);
            if (operations_.empty()) emptyCondition_.notify_all();
        }
        operation->finishedCondition_.notify_all();
    }
    // From here on this queue may be empty and its owner free to destroy it; only
    // the dependents and their own queues are touched (the pool's destructor waits
    // for this function to return).
    for (const auto& weakDependent : dependents) {
        if (OperationRef dependent = weakDependent.lock()) {
            if (OperationQueue* queue = dependent->dependencyDidFinish()) queue->submit(dependent);
        }
    }
}

} // namespace qv

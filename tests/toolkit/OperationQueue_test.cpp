#include "toolkit/OperationQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "toolkit/Log.h"

using namespace qv;
using namespace std::chrono_literals;

namespace {

// A door that operations wait at until the test opens it. The wait gives up after
// a minute so that a fault shows as a failure rather than a hung test run.
class Gate {
public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        condition_.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex_);
        return condition_.wait_for(lock, 60s, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool open_ = false;
};

// Every caller waits until `count` callers have arrived; false if they never do.
class Meeting {
public:
    explicit Meeting(int count) : count_(count) {}
    bool arriveAndWait() {
        std::unique_lock lock(mutex_);
        if (--count_ <= 0) condition_.notify_all();
        return condition_.wait_for(lock, 60s, [this] { return count_ <= 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    int count_;
};

OperationRef failing(long code, const std::string& text) {
    return BlockOperation::blockOperationWithBlock(
        [code, text]() -> OperationResult { return QVError{"test", code, text}; });
}

// Keeps log lines of refused calls out of the test output and lets tests read them.
struct CapturedLog {
    std::vector<std::string> lines;
    std::mutex mutex;
    QVLogSink previous;
    CapturedLog() {
        previous = QVLogSetSink([this](const std::string& line) {
            std::lock_guard lock(mutex);
            lines.push_back(line);
        });
    }
    ~CapturedLog() { QVLogSetSink(previous); }
};

} // namespace

TEST(OperationQueue, ResultsAreKeptAndOnlyAfterFinishing) {
    OperationQueue queue;
    Gate gate;
    auto blocked = BlockOperation::blockOperationWithBlock([&]() -> OperationResult {
        gate.wait();
        return QVError{"test", 1001, "refused"};
    });
    auto succeeding = BlockOperation::blockOperationWithVoidBlock([] {});
    EXPECT_FALSE(blocked->result().has_value());
    ASSERT_TRUE(queue.addOperations({blocked, succeeding}, false));

    succeeding->waitUntilFinished();
    EXPECT_TRUE(succeeding->isFinished());
    EXPECT_FALSE(succeeding->result().has_value());
    // Still running: no result yet, and the queue counts it.
    EXPECT_FALSE(blocked->isFinished());
    EXPECT_FALSE(blocked->result().has_value());
    EXPECT_GE(queue.operationCount(), 1u);

    gate.open();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_TRUE(queue.operations().empty());
    ASSERT_TRUE(blocked->result().has_value());
    EXPECT_EQ(blocked->result()->code, 1001);
    EXPECT_EQ(blocked->result()->description, "refused");
    EXPECT_FALSE(blocked->isExecuting());
    // Read again much later: the same result.
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(blocked->result()->code, 1001);
}

TEST(OperationQueue, ExceptionInABodyBecomesAnErrorAndTheQueueGoesOn) {
    CapturedLog log;
    OperationQueue queue;
    auto throwing = BlockOperation::blockOperationWithBlock([]() -> OperationResult {
        throw std::runtime_error("broken body");
    });
    auto after = BlockOperation::blockOperationWithVoidBlock([] {});
    ASSERT_TRUE(after->addDependency(throwing));
    queue.addOperations({throwing, after}, true);
    ASSERT_TRUE(throwing->result().has_value());
    EXPECT_EQ(throwing->result()->code, QVErrorRefused);
    EXPECT_TRUE(after->isFinished());
    EXPECT_FALSE(after->result().has_value());
}

TEST(OperationQueue, DependenciesHoldUnderRaces) {
    // Fan-in and chains, within one queue and across two, with bodies of uneven
    // length: no operation may start before everything it depends on has finished.
    OperationQueue first;
    OperationQueue second;
    std::atomic<int> violations{0};
    std::atomic<int> ran{0};
    for (int round = 0; round < 100; ++round) {
        std::vector<OperationRef> inputs;
        for (int i = 0; i < 6; ++i) {
            inputs.push_back(BlockOperation::blockOperationWithVoidBlock([i, &ran] {
                if (i % 2) std::this_thread::sleep_for(std::chrono::microseconds(50 * i));
                ++ran;
            }));
        }
        auto joined = BlockOperation::blockOperationWithVoidBlock([&, inputs] {
            for (const auto& input : inputs)
                if (!input->isFinished()) ++violations;
            ++ran;
        });
        for (const auto& input : inputs) ASSERT_TRUE(joined->addDependency(input));
        auto last = BlockOperation::blockOperationWithVoidBlock([&, joined] {
            if (!joined->isFinished()) ++violations;
            ++ran;
        });
        ASSERT_TRUE(last->addDependency(joined));
        EXPECT_FALSE(joined->isReady());

        // Dependents go in before their dependencies, and across queues.
        second.addOperation(last);
        first.addOperation(joined);
        for (size_t i = 0; i < inputs.size(); ++i) (i % 2 ? first : second).addOperation(inputs[i]);
    }
    first.waitUntilAllOperationsAreFinished();
    second.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(ran.load(), 100 * 8);
}

TEST(OperationQueue, DependingOnAFinishedOperationStartsAtOnce) {
    OperationQueue queue;
    auto done = failing(7, "earlier failure");
    queue.addOperations({done}, true);

    auto next = BlockOperation::blockOperationWithVoidBlock([] {});
    ASSERT_TRUE(next->addDependency(done));
    EXPECT_TRUE(next->isReady());
    EXPECT_EQ(next->dependencies().size(), 1u);
    // A failed dependency is still a finished one.
    queue.addOperations({next}, true);
    EXPECT_TRUE(next->isFinished());
}

TEST(OperationQueue, NoLimitByDefaultAndOperationsAddedWhileOthersRun) {
    OperationQueue queue;
    EXPECT_EQ(queue.maxConcurrentOperationCount(), OperationQueue::DefaultMaxConcurrentOperationCount);
    // Twenty operations that each wait until all twenty are running: only a queue
    // that starts every ready operation can finish this. They are added one by
    // one while the earlier ones already run.
    constexpr int count = 20;
    Meeting meeting(count);
    std::atomic<int> met{0};
    for (int i = 0; i < count; ++i) {
        queue.addOperationWithBlock([&] {
            if (meeting.arriveAndWait()) ++met;
        });
        if (i == 0) std::this_thread::sleep_for(1ms);
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(met.load(), count);
}

TEST(OperationQueue, MaximumBoundsTheOperationsRunningAtOnce) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(2);
    EXPECT_EQ(queue.maxConcurrentOperationCount(), 2);
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    std::atomic<int> finished{0};
    for (int i = 0; i < 12; ++i) {
        queue.addOperationWithBlock([&] {
            int now = ++running;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {}
            std::this_thread::sleep_for(2ms);
            --running;
            ++finished;
        });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(finished.load(), 12);
    EXPECT_LE(most.load(), 2);

    // Lifting the limit lets a meeting of four happen.
    queue.setMaxConcurrentOperationCount(0);
    EXPECT_EQ(queue.maxConcurrentOperationCount(), OperationQueue::DefaultMaxConcurrentOperationCount);
    Meeting meeting(4);
    std::atomic<int> met{0};
    for (int i = 0; i < 4; ++i)
        queue.addOperationWithBlock([&] {
            if (meeting.arriveAndWait()) ++met;
        });
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(met.load(), 4);
}

TEST(OperationQueue, DestructionWaitsForRunningAndWaitingOperations) {
    std::atomic<int> finished{0};
    std::vector<OperationRef> kept;
    {
        auto queue = std::make_unique<OperationQueue>();
        OperationQueue* raw = queue.get();
        for (int i = 0; i < 4; ++i) {
            kept.push_back(raw->addOperationWithBlock([&finished, raw] {
                std::this_thread::sleep_for(10ms);
                // The queue must still be alive here.
                (void)raw->operationCount();
                ++finished;
            }));
        }
        // One that can only start after the others.
        auto last = BlockOperation::blockOperationWithVoidBlock([&finished] { ++finished; });
        for (const auto& op : kept) last->addDependency(op);
        raw->addOperation(last);
        kept.push_back(last);
        queue.reset();
    }
    EXPECT_EQ(finished.load(), 5);
    for (const auto& op : kept) EXPECT_TRUE(op->isFinished());
}

TEST(OperationQueue, NoLostWakeUpsWithManyShortOperations) {
    OperationQueue queue;
    int total = 0;
    for (int i = 0; i < 3000; ++i) {
        auto op = BlockOperation::blockOperationWithVoidBlock([&total] { ++total; });
        queue.addOperation(op);
        op->waitUntilFinished();
    }
    EXPECT_EQ(total, 3000);

    std::atomic<int> batched{0};
    for (int round = 0; round < 300; ++round) {
        std::vector<OperationRef> batch;
        for (int i = 0; i < 4; ++i) batch.push_back(BlockOperation::blockOperationWithVoidBlock([&] { ++batched; }));
        // Chain half of them so that wake-ups also pass through dependencies.
        batch[1]->addDependency(batch[0]);
        batch[3]->addDependency(batch[2]);
        if (round % 2) {
            queue.addOperations(batch, true);
            for (const auto& op : batch) EXPECT_TRUE(op->isFinished());
        } else {
            queue.addOperations(batch, false);
            queue.waitUntilAllOperationsAreFinished();
            EXPECT_EQ(queue.operationCount(), 0u);
        }
    }
    EXPECT_EQ(batched.load(), 1200);
}

TEST(OperationQueue, CancelledBeforeStartingNeverRunsAndReleasesItsDependents) {
    OperationQueue queue;
    Gate gate;
    auto blocker = BlockOperation::blockOperationWithVoidBlock([&] { gate.wait(); });
    std::atomic<bool> bodyRan{false};
    auto cancelled = BlockOperation::blockOperationWithBlock([&]() -> OperationResult {
        bodyRan = true;
        return QVError{"test", 1, "should not run"};
    });
    cancelled->addDependency(blocker);
    auto dependent = BlockOperation::blockOperationWithVoidBlock([] {});
    dependent->addDependency(cancelled);
    queue.addOperations({blocker, cancelled, dependent}, false);

    cancelled->cancel();
    EXPECT_TRUE(cancelled->isCancelled());
    // Finishes without waiting for the blocked operation it depended on.
    cancelled->waitUntilFinished();
    dependent->waitUntilFinished();
    EXPECT_FALSE(bodyRan.load());
    EXPECT_FALSE(cancelled->result().has_value());
    EXPECT_FALSE(blocker->isFinished());

    // A running operation is only told; it polls.
    std::atomic<bool> sawCancel{false};
    Gate started;
    Gate proceed;
    auto self = std::make_shared<std::weak_ptr<Operation>>();
    auto polling = BlockOperation::blockOperationWithBlock([&, self]() -> OperationResult {
        started.open();
        proceed.wait();
        if (auto op = self->lock()) sawCancel = op->isCancelled();
        return std::nullopt;
    });
    *self = polling;
    queue.addOperation(polling);
    started.wait();
    queue.cancelAllOperations();
    EXPECT_TRUE(polling->isCancelled());
    EXPECT_TRUE(polling->isExecuting());
    proceed.open();
    gate.open();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(sawCancel.load());
    EXPECT_TRUE(polling->isFinished());
    EXPECT_TRUE(blocker->isFinished());
    EXPECT_TRUE(blocker->isCancelled());

    // Cancelling a finished operation changes nothing.
    auto finished = failing(3, "kept");
    queue.addOperations({finished}, true);
    finished->cancel();
    EXPECT_FALSE(finished->isCancelled());
    EXPECT_EQ(finished->result()->code, 3);
}

TEST(OperationQueue, MisuseIsRefusedWithoutHarm) {
    CapturedLog log;
    OperationQueue queue;
    QVError error;
    EXPECT_FALSE(queue.addOperation(nullptr, &error));
    EXPECT_EQ(error.code, QVErrorRefused);

    auto a = BlockOperation::blockOperationWithVoidBlock([] {});
    auto b = BlockOperation::blockOperationWithVoidBlock([] {});
    auto c = BlockOperation::blockOperationWithVoidBlock([] {});
    EXPECT_FALSE(a->addDependency(a));
    EXPECT_FALSE(a->addDependency(nullptr));
    ASSERT_TRUE(b->addDependency(a));
    ASSERT_TRUE(c->addDependency(b));
    // Would make a wait for c, which waits for a.
    error = {};
    EXPECT_FALSE(a->addDependency(c, &error));
    EXPECT_EQ(error.code, QVErrorRefused);
    EXPECT_TRUE(a->dependencies().empty());
    // The same dependency twice counts once.
    EXPECT_TRUE(c->addDependency(b));
    EXPECT_EQ(c->dependencies().size(), 1u);

    ASSERT_TRUE(queue.addOperations({c, b, a}, true));
    // Already run, in this queue or another.
    OperationQueue other;
    EXPECT_FALSE(queue.addOperation(a));
    EXPECT_FALSE(other.addOperation(a));
    auto late = BlockOperation::blockOperationWithVoidBlock([] {});
    EXPECT_FALSE(a->addDependency(late));

    // Refused halfway: what went in before still runs, and the call still waits.
    auto fresh = BlockOperation::blockOperationWithVoidBlock([] {});
    EXPECT_FALSE(queue.addOperations({fresh, a}, true));
    EXPECT_TRUE(fresh->isFinished());
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_FALSE(log.lines.empty());
}

TEST(OperationQueue, ClosureIsReleasedOnceItHasRun) {
    // A closure that holds its own operation must not keep it alive for ever.
    OperationQueue queue;
    std::weak_ptr<Operation> watch;
    {
        auto self = std::make_shared<std::shared_ptr<Operation>>();
        auto op = BlockOperation::blockOperationWithVoidBlock([self] { (void)self; });
        *self = op;
        watch = op;
        queue.addOperations({op}, true);
    }
    queue.waitUntilAllOperationsAreFinished();
    // The worker may still hold it for a moment after it has finished.
    for (int i = 0; i < 1000 && !watch.expired(); ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(watch.expired());
}

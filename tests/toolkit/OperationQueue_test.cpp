#include "toolkit/OperationQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stdexcept>
#include <thread>

#include "toolkit/LogCapture.h"

using namespace qv;
using namespace std::chrono_literals;

namespace {

// Every caller waits until `count` callers have arrived (a count of 1 is a door that
// `arrive()` opens). Gives up after a minute, so that a fault fails rather than hangs.
struct Meeting {
    std::mutex mutex;
    std::condition_variable condition;
    int count;
    explicit Meeting(int n) : count(n) {}
    void arrive() {
        std::lock_guard lock(mutex);
        if (--count <= 0) condition.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex);
        return condition.wait_for(lock, 60s, [this] { return count <= 0; });
    }
};

OperationRef op(std::function<void()> body) { return BlockOperation::blockOperationWithVoidBlock(std::move(body)); }

} // namespace

TEST(OperationQueue, ResultsAreKeptOnlyOnceFinishedAndExceptionsBecomeErrors) {
    test::LogCapture quiet;
    OperationQueue queue;
    Meeting door(1);
    auto failing = BlockOperation::blockOperationWithBlock([&]() -> OperationResult {
        door.wait();
        return QVError{"test", 1001, "refused"};
    });
    auto throwing = BlockOperation::blockOperationWithBlock([]() -> OperationResult { throw std::runtime_error("x"); });
    auto after = op([] {});
    ASSERT_TRUE(after->addDependency(throwing));
    queue.addOperations({failing, throwing, after}, false);
    after->waitUntilFinished();
    EXPECT_FALSE(failing->result()) << "no result while running";

    door.arrive();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(failing->result().value_or(QVError{}).description, "refused");
    EXPECT_EQ(throwing->result().value_or(QVError{}).code, QVErrorRefused);
    EXPECT_FALSE(after->result()) << "a failed dependency is still a finished one";
}

TEST(OperationQueue, DependenciesHoldUnderRacesAcrossQueues) {
    OperationQueue first, second;
    std::atomic<int> violations{0}, ran{0};
    for (int round = 0; round < 100; ++round) {
        std::vector<OperationRef> inputs;
        for (int i = 0; i < 6; ++i)
            inputs.push_back(op([i, &ran] { std::this_thread::sleep_for(std::chrono::microseconds(50 * (i % 2))), ++ran; }));
        auto joined = op([&, inputs] {
            for (const auto& input : inputs) violations += !input->isFinished();
            ++ran;
        });
        for (const auto& input : inputs) ASSERT_TRUE(joined->addDependency(input));
        auto last = op([&, joined] { violations += !joined->isFinished(), ++ran; });
        ASSERT_TRUE(last->addDependency(joined));
        // Dependents go in first, and the graph spans both queues.
        second.addOperation(last);
        first.addOperation(joined);
        for (size_t i = 0; i < inputs.size(); ++i) (i % 2 ? first : second).addOperation(inputs[i]);
    }
    first.waitUntilAllOperationsAreFinished();
    second.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(ran.load(), 100 * 8);  // and every batch ran: no wake-up was lost
}

TEST(OperationQueue, UnlimitedByDefaultDestructionWaitsAndClosuresAreReleased) {
    std::atomic<int> met{0}, finished{0};
    std::weak_ptr<Operation> selfHolding;
    {
        OperationQueue queue;
        // Twenty operations that each wait until all twenty run: only a queue that
        // starts every ready one finishes this. Added one by one while earlier ones run.
        Meeting meeting(20);
        for (int i = 0; i < 20; ++i) queue.addOperationWithBlock([&] { meeting.arrive(), met += meeting.wait(); });
        queue.addOperationWithBlock([&] {
            std::this_thread::sleep_for(10ms);
            (void)queue.operationCount();  // the queue must still be alive
            ++finished;
        });
        // A closure holding its own operation must not keep it alive once run.
        auto self = std::make_shared<OperationRef>();
        auto circular = op([self] {});
        *self = circular;
        selfHolding = circular;
        queue.addOperation(circular);
    }
    EXPECT_EQ(met.load(), 20);
    EXPECT_EQ(finished.load(), 1) << "the queue's end waited for its operations";
    EXPECT_TRUE(selfHolding.expired());
}

TEST(OperationQueue, CancelSkipsWhatHasNotStartedAndOnlyFlagsWhatRuns) {
    OperationQueue queue;
    Meeting release(1), started(1);
    std::atomic<bool> bodyRan{false}, sawCancel{false};
    auto self = std::make_shared<std::weak_ptr<Operation>>();
    auto blocker = op([&, self] { started.arrive(), release.wait(), sawCancel = self->lock()->isCancelled(); });
    *self = blocker;
    auto skipped = op([&] { bodyRan = true; });
    skipped->addDependency(blocker);
    auto dependent = op([] {});
    dependent->addDependency(skipped);
    queue.addOperations({blocker, skipped, dependent}, false);
    started.wait();

    queue.cancelAllOperations();
    // The skipped one no longer waits for its blocked dependency, and frees its own.
    skipped->waitUntilFinished();
    dependent->waitUntilFinished();
    EXPECT_FALSE(bodyRan.load());
    EXPECT_TRUE(blocker->isExecuting());
    release.arrive();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(sawCancel.load());
}

TEST(OperationQueue, MisuseIsRefusedWithoutHarm) {
    test::LogCapture quiet;
    OperationQueue queue;
    EXPECT_FALSE(queue.addOperation(nullptr));
    auto a = op([] {}), b = op([] {}), c = op([] {});
    ASSERT_TRUE(b->addDependency(a));
    ASSERT_TRUE(c->addDependency(b));
    EXPECT_FALSE(a->addDependency(c)) << "a cycle never runs";
    ASSERT_TRUE(queue.addOperations({c, b, a}, true));
    // An operation runs once; refused halfway, what went in before still runs, and the call still waits.
    auto fresh = op([] {});
    EXPECT_FALSE(queue.addOperations({fresh, a}, true));
    EXPECT_TRUE(fresh->isFinished());
}

// Thread helpers: blocks reach the thread of the event loop in order, a waiting
// caller resumes only after its block ran, and the main thread never waits for itself.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "support/QtApp.h"
#include "toolkit/MainThread.h"

using namespace qv;

TEST(MainThread, BlocksFromWorkersRunOnTheMainThreadInOrderAndWaitersSeeTheirEffects) {
    test::qtApp();
    const auto mainId = std::this_thread::get_id();
    std::vector<std::thread::id> ranOn;
    std::vector<int> order;
    bool sawEffect = false, threw = false;
    std::atomic<bool> finished{false}, delayed{false};
    std::thread worker([&] {
        for (int i = 0; i < 3; ++i) performBlockOnMainThread([&, i] { order.push_back(i); });
        performBlockOnMainThread([&] { ranOn.push_back(std::this_thread::get_id()); }, true);
        sawEffect = ranOn.size() == 1;  // the block ran before the wait ended
        try {
            performBlockOnMainThread([] { throw std::runtime_error("boom"); }, true);
        } catch (const std::runtime_error&) {
            threw = true;  // reaches the waiter, not the event loop
        }
        afterDelay(0.02, [&] { ranOn.push_back(std::this_thread::get_id()), delayed = true; });
        finished = true;
    });
    EXPECT_TRUE(test::processEventsUntil([&] { return finished.load() && delayed.load(); }));
    worker.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(ranOn, (std::vector<std::thread::id>{mainId, mainId}));
    EXPECT_TRUE(sawEffect);
    EXPECT_TRUE(threw);

    // On the main thread a wait runs in place (queued, it would deadlock); a post runs after the caller.
    order.clear();
    performBlockOnMainThread([&] { order.push_back(1); }, true);
    performBlockOnMainThread([&] { order.push_back(3); });
    order.push_back(2);
    EXPECT_TRUE(test::processEventsUntil([&] { return order.size() == 3; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

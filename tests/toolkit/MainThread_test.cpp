// Thread helpers: blocks reach the thread of the event loop, waiting callers
// resume only after the block ran, and the main thread never waits for itself.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "support/QtApp.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"

using namespace qv;

TEST(MainThread, WithoutAnApplicationEveryThreadIsMainAndBlocksRunInPlace) {
    // Once a test has made the application it stays; run alone this case sees none.
    if (QCoreApplication::instance()) GTEST_SKIP() << "an application exists in this run";
    std::thread::id ranOn;
    std::thread worker([&] {
        EXPECT_TRUE(QVIsMainThread());
        performBlockOnMainThread([&] { ranOn = std::this_thread::get_id(); }, false);
        EXPECT_EQ(ranOn, std::this_thread::get_id()) << "in place, even without waiting";
    });
    worker.join();

    std::atomic<bool> delayed{false};
    afterDelay(0.01, [&] { delayed = true; });
    for (int i = 0; i < 1000 && !delayed; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(delayed) << "a delayed block runs on a thread of its own";
}

TEST(MainThread, AWorkerWaitsForItsBlockToRunOnTheMainThread) {
    test::qtApp();
    const std::thread::id mainId = std::this_thread::get_id();
    EXPECT_TRUE(QVIsMainThread());

    std::thread::id ranOn;
    bool workerSawMain = true;
    bool valueAfterWait = false;
    std::atomic<bool> finished{false};
    std::thread worker([&] {
        workerSawMain = QVIsMainThread();
        bool value = false;
        performBlockOnMainThread(
            [&] {
                ranOn = std::this_thread::get_id();
                value = true;
            },
            true);
        valueAfterWait = value;  // written by the block before the wait ended
        finished = true;
    });
    EXPECT_TRUE(test::processEventsUntil([&] { return finished.load(); }));
    worker.join();
    EXPECT_FALSE(workerSawMain);
    EXPECT_EQ(ranOn, mainId);
    EXPECT_TRUE(valueAfterWait);

    // An exception in the block reaches the waiting worker, not the event loop.
    std::atomic<bool> threw{false};
    finished = false;
    std::thread failing([&] {
        try {
            performBlockOnMainThread([] { throw std::runtime_error("boom"); }, true);
        } catch (const std::runtime_error& e) {
            threw = std::string(e.what()) == "boom";
        }
        finished = true;
    });
    EXPECT_TRUE(test::processEventsUntil([&] { return finished.load(); }));
    failing.join();
    EXPECT_TRUE(threw);
}

TEST(MainThread, OnTheMainThreadAWaitRunsInPlaceAndAPostRunsAfterTheCaller) {
    test::qtApp();
    bool ran = false;
    performBlockOnMainThread([&] { ran = true; }, true);  // would deadlock if it queued
    EXPECT_TRUE(ran);

    std::vector<int> order;
    performBlockOnMainThread([&] { order.push_back(2); });
    order.push_back(1);
    EXPECT_TRUE(test::processEventsUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    // Posted blocks keep their order, and one that throws is logged without
    // stopping the loop or the blocks after it.
    std::vector<std::string> lines;
    QVLogSetSink([&](const std::string& line) { lines.push_back(line); });
    order.clear();
    std::thread worker([&] {
        for (int i = 0; i < 5; ++i) {
            if (i == 2) performBlockOnMainThread([] { throw std::runtime_error("posted failure"); });
            performBlockOnMainThread([&order, i] { order.push_back(i); });
        }
    });
    worker.join();
    EXPECT_TRUE(test::processEventsUntil([&] { return order.size() == 5; }));
    QVLogSetSink(nullptr);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("posted failure"), std::string::npos);
}

TEST(MainThread, DelayedBlocksRunOnTheirLoopsAndDetachedOnesOnANewThread) {
    test::qtApp();
    const std::thread::id mainId = std::this_thread::get_id();

    // afterDelay from a worker lands on the main thread, never in place.
    std::atomic<bool> delayedRan{false};
    std::thread::id delayedOn;
    std::thread poster([&] {
        afterDelay(0.02, [&] {
            delayedOn = std::this_thread::get_id();
            delayedRan = true;
        });
        EXPECT_FALSE(delayedRan.load());
    });
    poster.join();
    // Also from the main thread itself: still later, not in place.
    bool mainDelayed = false;
    afterDelay(0, [&] { mainDelayed = true; });
    EXPECT_FALSE(mainDelayed);
    EXPECT_TRUE(test::processEventsUntil([&] { return delayedRan.load() && mainDelayed; }));
    EXPECT_EQ(delayedOn, mainId);

    // afterDelayPerformBlock on a plain thread runs there, once that thread turns its loop.
    std::thread::id workerId, localOn;
    std::thread worker([&] {
        workerId = std::this_thread::get_id();
        bool ran = false;
        afterDelayPerformBlock(0.01, [&] {
            localOn = std::this_thread::get_id();
            ran = true;
        });
        EXPECT_FALSE(ran);
        EXPECT_TRUE(test::processEventsUntil([&] { return ran; }));
    });
    worker.join();
    EXPECT_EQ(localOn, workerId);
    EXPECT_NE(localOn, mainId);

    // detachBlock: a thread of its own; an exception there is logged, not fatal.
    std::atomic<bool> detachedDone{false};
    std::thread::id detachedOn;
    std::atomic<int> logged{0};
    QVLogSetSink([&](const std::string& line) {
        if (line.find("detached failure") != std::string::npos) ++logged;
    });
    detachBlock([] { throw std::runtime_error("detached failure"); });
    detachBlock([&] {
        detachedOn = std::this_thread::get_id();
        detachedDone = true;
    });
    EXPECT_TRUE(test::processEventsUntil([&] { return detachedDone.load() && logged.load() == 1; }));
    QVLogSetSink(nullptr);
    EXPECT_NE(detachedOn, mainId);
}

#include "toolkit/MainThread.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <climits>
#include <cmath>
#include <exception>
#include <future>
#include <memory>
#include <thread>

#include "toolkit/Log.h"

namespace qv {

namespace {

// Runs a block whose exceptions nobody can receive: a Qt event handler or the top
// of a thread must not be left by one.
void runCatching(const QVBlock& block) {
    try {
        block();
    } catch (const std::exception& e) {
        QV_LOG_ERROR(QVFormat("a block on another thread threw: %s", e.what()));
    } catch (...) {
        QV_LOG_ERROR("a block on another thread threw an unknown exception");
    }
}

int delayMilliseconds(double seconds) {
    if (!(seconds > 0)) return 0;  // also NaN
    double ms = std::ceil(seconds * 1000.0);
    return ms >= double(INT_MAX) ? INT_MAX : int(ms);
}

// With no event loop anywhere, a delayed block waits out its delay on a thread of
// its own.
void runOnDetachedThreadAfter(double seconds, QVBlock block) {
    detachBlock([seconds, block = std::move(block)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMilliseconds(seconds)));
        block();
    });
}

} // namespace

bool QVIsMainThread() {
    QCoreApplication* app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

void performBlockOnMainThread(QVBlock block, bool wait) {
    if (!block) return;
    QCoreApplication* app = QCoreApplication::instance();
    if (!app || (wait && QVIsMainThread())) {
        block();
        return;
    }
    if (!wait) {
        // Queued even on the main thread: an asynchronous step runs after the
        // caller's own code, as it would from any other thread.
        QMetaObject::invokeMethod(app, [block = std::move(block)] { runCatching(block); }, Qt::QueuedConnection);
        return;
    }
    // The promise lives in the queued functor: if the application goes away before
    // the block ran, the functor is destroyed unrun and the waiter gets
    // std::future_error (broken promise) instead of waiting for ever.
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    QMetaObject::invokeMethod(
        app,
        [block = std::move(block), done] {
            try {
                block();
                done->set_value();
            } catch (...) {
                done->set_exception(std::current_exception());
            }
        },
        Qt::QueuedConnection);
    finished.get();
}

void afterDelay(double seconds, QVBlock block) {
    if (!block) return;
    QCoreApplication* app = QCoreApplication::instance();
    if (!app) {
        runOnDetachedThreadAfter(seconds, std::move(block));
        return;
    }
    // The timer is started on the main thread, so that it belongs to the loop that
    // is to run the block.
    int ms = delayMilliseconds(seconds);
    QMetaObject::invokeMethod(
        app,
        [app, ms, block = std::move(block)] {
            QTimer::singleShot(ms, app, [block] { runCatching(block); });
        },
        Qt::QueuedConnection);
}

void afterDelayPerformBlock(double seconds, QVBlock block) {
    if (!block) return;
    if (!QCoreApplication::instance()) {
        runOnDetachedThreadAfter(seconds, std::move(block));
        return;
    }
    QThread* thread = QThread::currentThread();
    if (!thread->eventDispatcher()) {
        // Making an event loop gives the thread the dispatcher that timers need.
        QEventLoop makesDispatcher;
    }
    QTimer::singleShot(delayMilliseconds(seconds), [block = std::move(block)] { runCatching(block); });
}

void detachBlock(QVBlock block) {
    if (!block) return;
    try {
        std::thread([block = std::move(block)] { runCatching(block); }).detach();
    } catch (const std::system_error& e) {
        QV_LOG_ERROR(QVFormat("couldn't start a thread: %s", e.what()));
        throw;
    }
}

} // namespace qv

#pragma once
// Thread helpers: how tasks reach the main thread, run something later, or start
// a thread of their own.
//
// The main thread is the thread of the Qt event loop: the thread that owns the
// QCoreApplication (a QApplication in the desktop program). Everything the
// interface shows is read and written there, so a worker that wants to change a
// face's presentation fields posts a block to it.
//
// With no QCoreApplication at all (a program or test that never made one) there
// is no event loop to post to, and every thread counts as the main thread: the
// blocks of performBlockOnMainThread run in place, on the caller's thread; a
// delayed block runs on a detached thread once its delay has passed.
//
// A block posted to the main thread runs only while that thread turns its event
// loop (exec() or processEvents()). A worker that waits for a block while the main
// thread sits in a blocking call of its own (joining that worker, say) deadlocks;
// a main thread that must wait for workers waits in a QEventLoop.
#include <functional>

namespace qv {

using QVBlock = std::function<void()>;

// True on the thread that owns the QCoreApplication, and on every thread when there
// is none.
bool QVIsMainThread();

// Has the block run on the main thread.
// - With `wait`: called on the main thread, it runs at once, in place, so that a
//   step "on the main thread, waiting" can never wait for itself; called elsewhere,
//   it is queued to the main thread's event loop and the caller blocks until it has
//   run. An exception that leaves the block is thrown again in the caller.
// - Without `wait`: it is queued, also when called on the main thread, so that it
//   always runs after the caller's own code. An exception that leaves the block is
//   logged and dropped.
void performBlockOnMainThread(QVBlock block, bool wait);
// The same without waiting.
inline void performBlockOnMainThread(QVBlock block) { performBlockOnMainThread(std::move(block), false); }

// Runs the block on the main thread's event loop once `seconds` have passed (0 or
// less: at the loop's next turn). Never runs it in place, even on the main thread.
void afterDelay(double seconds, QVBlock block);

// Runs the block on the calling thread's event loop once `seconds` have passed. A
// thread without an event loop gets one made (QEventLoop), but the block runs only
// when that thread turns it; a thread that never does never runs the block.
void afterDelayPerformBlock(double seconds, QVBlock block);

// Runs the block on a new detached thread. An exception that leaves the block is
// logged and dropped rather than ending the process.
void detachBlock(QVBlock block);

} // namespace qv

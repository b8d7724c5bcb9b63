#pragma once
// The one QCoreApplication of a test binary. Code that posts to the main thread
// needs an event loop to post to; tests that want one call qtApp() (on the thread
// of main(), where GoogleTest runs the tests), and the application then stays for
// the rest of the run. Tests that never call it run with no application at all.
#include <functional>

class QCoreApplication;

namespace qv::test {

QCoreApplication& qtApp();

// Turns the calling thread's event loop until `done` answers true or `timeoutMs`
// have passed; returns `done`'s last answer.
bool processEventsUntil(const std::function<bool()>& done, int timeoutMs = 10000);

// Turns the event loop for `ms` milliseconds, so that whatever was posted runs.
void processEventsFor(int ms);

} // namespace qv::test

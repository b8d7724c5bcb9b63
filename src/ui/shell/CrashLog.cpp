#include "ui/shell/CrashLog.h"

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>

#include "toolkit/Log.h"

namespace qv::ui {

namespace {

void onFatalSignal(int number) {
    // Only async-signal-safe calls here.
    const char* name = sigabbrev_np(number);
    static const char prefix[] = "quillvane: crashed on signal SIG";
    ssize_t ignored = ::write(STDERR_FILENO, prefix, sizeof prefix - 1);
    if (name) ignored = ::write(STDERR_FILENO, name, strlen(name));
    ignored = ::write(STDERR_FILENO, "\n", 1);
    (void)ignored;
    ::signal(number, SIG_DFL);
    ::raise(number);
}

} // namespace

void installCrashLogging() {
    std::set_terminate([] {
        std::string what = "unknown";
        if (std::exception_ptr current = std::current_exception()) {
            try {
                std::rethrow_exception(current);
            } catch (const std::exception& e) {
                what = e.what();
            } catch (...) {
            }
        }
        QV_LOG_ERROR("crashed on an uncaught exception: " + what);
        std::abort();
    });
    for (int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) ::signal(number, onFatalSignal);
}

} // namespace qv::ui

#include "toolkit/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace qv {

namespace {
std::atomic<bool> gStderr{false};
std::mutex gSinkMutex;
QVLogSink gSink;
std::once_flag gOpenLog;
} // namespace

std::string QVFormat(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(out.data(), out.size(), fmt, ap2);
        out.resize(static_cast<size_t>(n));
    }
    va_end(ap2);
    return out;
}

void QVLogLine(int priority, const std::string& line) {
    std::call_once(gOpenLog, [] { openlog("quillvane", LOG_PID, LOG_USER); });
    syslog(priority, "%s", line.c_str());
    if (gStderr.load()) std::fprintf(stderr, "%s\n", line.c_str());
    QVLogSink sink;
    {
        std::lock_guard<std::mutex> lock(gSinkMutex);
        sink = gSink;
    }
    if (sink) sink(line);
}

void QVLogError(const char* function, int line, const std::string& text) {
    QVLogLine(LOG_ERR, QVFormat("ERROR (%s:%d): ", function, line) + text);
}

void QVLogWarn(const char* function, int line, const std::string& text) {
    QVLogLine(LOG_WARNING, QVFormat("WARN (%s:%d): ", function, line) + text);
}

void QVLogInfo(const std::string& text) { QVLogLine(LOG_INFO, "INFO: " + text); }

void QVLogSetStderr(bool on) { gStderr.store(on); }

QVLogSink QVLogSetSink(QVLogSink sink) {
    std::lock_guard<std::mutex> lock(gSinkMutex);
    QVLogSink old = std::move(gSink);
    gSink = std::move(sink);
    return old;
}

} // namespace qv

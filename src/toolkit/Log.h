#pragma once
// The one logger. Every line goes to the system journal (syslog); when asked,
// also to standard error. Lines take the system's forms:
//   "ERROR (%s:%d): %@"   QV_LOG_ERROR(text)
//   "WARN (%s:%d): %@"    QV_LOG_WARN(text)
//   "INFO: %@"            QVLogInfo(text)
//   "ERROR (%s:%d): failed because: <condition>"   QV_LOG_FAILED("!lookup")
#include <functional>
#include <string>

namespace qv {

// printf-style formatting into a std::string.
std::string QVFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

void QVLogLine(int syslogPriority, const std::string& line);
void QVLogError(const char* function, int line, const std::string& text);
void QVLogWarn(const char* function, int line, const std::string& text);
void QVLogInfo(const std::string& text);

// Also copy every line to standard error (the command-line tools do when asked).
void QVLogSetStderr(bool on);
// An extra receiver of every line, for tests that check what was logged.
// Returns the previous one. Pass nullptr to remove.
using QVLogSink = std::function<void(const std::string&)>;
QVLogSink QVLogSetSink(QVLogSink sink);

} // namespace qv

#define QV_LOG_ERROR(text) ::qv::QVLogError(__func__, __LINE__, (text))
#define QV_LOG_WARN(text) ::qv::QVLogWarn(__func__, __LINE__, (text))
#define QV_LOG_FAILED(condition) ::qv::QVLogError(__func__, __LINE__, std::string("failed because: ") + (condition))

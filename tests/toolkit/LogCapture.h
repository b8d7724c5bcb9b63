#pragma once
// Captures log lines for the life of the object and restores the previous sink.
// Safe to log into from several threads; read `lines` directly only once no
// other thread logs any more.
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "toolkit/Log.h"

namespace qv::test {

struct LogCapture {
    std::vector<std::string> lines;
    std::mutex mutex;
    QVLogSink previous = QVLogSetSink([this](const std::string& l) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(l);
    });
    ~LogCapture() { QVLogSetSink(previous); }
    bool has(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::any_of(lines.begin(), lines.end(), [&](const auto& l) { return l.find(text) != std::string::npos; });
    }
};

} // namespace qv::test

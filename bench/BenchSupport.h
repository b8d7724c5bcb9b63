#pragma once
// What the benchmarks share: timing, and running a baseline tool through the
// project's own process runner (its output is read and thrown away).
#include <chrono>
#include <string>
#include <vector>

#include "disk/ProcessRunner.h"

namespace qv::bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Runs `program` with `args`; true when it exited with 0.
inline bool runTool(const std::string& program, const std::vector<std::string>& args) {
    QVError error;
    quickCommand(program, args, std::nullopt, &error);
    return error.empty();
}

} // namespace qv::bench

#pragma once
// The one way the system runs an external program: synchronously, by absolute
// path, with no shell in between. Secrets (image passwords) travel only as bytes
// on the child's standard input, never in its arguments or environment.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

// Runs `launchPath` with `args` (argv[0] is the launch path itself) and returns
// what the child wrote on standard output.
//
// - `inputData` absent: the child inherits our standard input. Present (even
//   empty): the child's standard input is a pipe that receives exactly these
//   bytes, no terminator added, and is then closed.
// - The child's standard output is read to end of file first, then its standard
//   error, then the child is waited for. The two are read one after the other, so
//   a child that fills the error pipe while keeping standard output open stalls:
//   the programs we drive write their diagnostics last.
// - Exit status 0: the output, *error cleared.
// - Any other status: the output still comes back, and *error is set in
//   QVPOSIXErrorDomain with the status as code (the signal number for a child
//   killed by a signal) and standard error decoded as UTF-8 as description.
// - A launch that fails (no such program, not executable), or a pipe that breaks
//   on our side, is logged as "got <name> while trying to run <path>: <reason>";
//   the child, if any, is terminated; *error gets code -1 and the reason. What was
//   read so far comes back, nullopt when nothing was.
//
// Blocks until the child exits, with no time limit: call it from a task thread.
// The caller owns `inputData` and wipes it; nothing here copies it.
std::optional<std::vector<uint8_t>> quickCommand(const std::string& launchPath,
                                                 const std::vector<std::string>& args,
                                                 std::optional<std::span<const uint8_t>> inputData,
                                                 QVError* error);

// Without input; the output decoded as UTF-8 (invalid sequences become U+FFFD),
// nullopt where no output came back at all (the launch failed).
std::optional<std::string> quickCommand(const std::string& launchPath, const std::vector<std::string>& args,
                                        QVError* error);

// The bytes of a string, for `inputData`, without a copy.
inline std::span<const uint8_t> QVInputBytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

} // namespace qv

#pragma once
// How the core runs an external program: synchronously, by absolute path, with
// no shell in between, through the one runner of sys/ProgramRunner.h, with the
// core's contract for output, status and errors. Secrets (image passwords)
// travel only as bytes on the child's standard input, never in its arguments
// or environment.
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
// - The child's standard output and standard error are read together, as they
//   come, while the input is fed, until both are at end of file; then the child
//   is waited for. No amount of output on either stream stalls it (the one
//   runner of sys/ProgramRunner.h does the work).
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

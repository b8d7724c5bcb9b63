#pragma once
// The one runner of helper programs: by absolute path, with no shell in between,
// synchronously. The child's standard output and standard error are read
// together as they come, and its standard input is fed at the same time, so no
// amount of output on either stream, nor of input, can stall the child or us.
// The child gets nothing of ours beyond its three standard streams, and a clean
// signal state (nothing blocked, every handler at its default).
//
// Secrets travel only as input bytes; nothing here copies or logs them.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qv {

struct QVRunOptions {
    // Bytes for the child's standard input: a pipe that receives exactly these
    // (even none) and is then closed. Without them the child reads /dev/null, or
    // our own standard input with `inheritInput`. A child that exits without
    // reading all of them is no failure (its status tells why it stopped).
    std::optional<std::span<const uint8_t>> input;
    bool inheritInput = false;
    // LC_ALL=C and LANG=C in the child's environment (otherwise ours as it is),
    // so that what it writes can be parsed.
    bool cLocale = false;
};

struct QVProgramResult {
    bool started = false; // the program was launched
    bool exited = false;  // it ended by exiting, with `status`
    int status = -1;
    int signal = 0; // otherwise: the signal that ended it
    std::string out;
    std::string err;
    // A failure on our side: the errno of a launch that failed (nothing ran), or
    // of the conversation with the child (which was then stopped); 0 when none.
    // `failureReason` says what failed: "launch path not accessible: <strerror>".
    int failure = 0;
    std::string failureReason;

    bool ok() const { return failure == 0 && exited && status == 0; }
    // One line for an error message: what failed on our side, or the program's
    // last words (standard error, else standard output) with how it ended.
    std::string summary() const;
};

// Runs `path` with `args` (argv[0] is the path itself) and waits for it to end.
QVProgramResult QVRunProgram(const std::string& path, const std::vector<std::string>& args,
                             const QVRunOptions& options = {});

} // namespace qv

#pragma once
// Reading passwords for the command line: typed on the terminal with echo off,
// or, when standard input is not a terminal, one line of standard input each
// (the newline is not part of the password). Never from the command line.
#include <optional>
#include <string>

namespace qv::cli {

class PasswordInput {
public:
    PasswordInput();
    // One password. `prompt` is shown on the terminal only.
    std::optional<std::string> read(const char* prompt);
    // A new password: typed twice on a terminal (both must match), read once otherwise.
    // nullopt with `mismatch` set when the two differ.
    std::optional<std::string> readNew(const char* prompt, const char* again, bool* mismatch);
    // A line of text that is no secret (a path, an answer): typed on the
    // terminal with echo, or the next line of standard input.
    std::optional<std::string> readText(const char* prompt);
    bool interactive() const { return interactive_; }

private:
    bool interactive_;
};

} // namespace qv::cli

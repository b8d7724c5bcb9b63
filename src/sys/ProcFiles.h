#pragma once
// The kernel's small text files (/proc, /sys) and the symbolic links of /proc
// that name a process's files: its executable, working directory, open files.
#include <string>

namespace qv {

// Reads a small /proc or /sys file whole (at most about `limit` bytes). False
// when it can't be opened or read (the process ended, or we may not look at it).
bool QVReadProcFile(const std::string& path, std::string& out, size_t limit = 16384);

// The kernel names a file that was unlinked after it was opened (or mapped, or
// put behind a loop device) by its old path and " (deleted)": the path without
// that mark.
std::string QVWithoutDeletedMark(std::string path);

// The target of a link of /proc (/proc/<pid>/exe, cwd, fd/<n>, ...) without the
// " (deleted)" mark; empty when it can't be read.
std::string QVReadProcLink(const std::string& link);

} // namespace qv

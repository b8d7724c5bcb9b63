#pragma once
// Where the project's helper programs (qv-image, qv-index) are found. The
// process runner starts programs only by absolute path, so every caller asks
// here rather than relying on PATH.
#include <string>

namespace qv {

// The absolute path of the helper program `name`, looked for in this order:
// - $QV_TOOL_DIR/<name> when that variable is set and not empty: then that
//   path is the answer whether or not the file is there, so that a test that
//   points at a build tree never runs an installed copy by mistake;
// - the directory of the running executable (/proc/self/exe), for programs
//   installed side by side;
// - /usr/local/bin, then /usr/bin.
// Without QV_TOOL_DIR, the first of these that holds an executable file wins;
// when none does, the answer is /usr/bin/<name>, which the runner then fails
// to start with an error that names it.
std::string QVToolPath(const std::string& name);

// Whether QVToolPath(name) is an executable file.
bool QVToolExists(const std::string& name);

} // namespace qv

#pragma once
// Who keeps a volume busy: processes with an open file, a working or root
// directory, an executable or a memory mapping at or under a path.
#include <sys/types.h>

#include <optional>
#include <set>
#include <string>

namespace qv::image {

struct Holder {
    pid_t pid = 0;
    std::string name;  // command name, as /proc/<pid>/comm gives it
};

// True when `path` is `root` or lies under it.
bool pathIsUnder(const std::string& path, const std::string& root);

// The process with the lowest pid that holds something under `root`, leaving
// out this process and the ones in `ignore`. Processes we may not inspect are
// skipped.
std::optional<Holder> findHolder(const std::string& root, const std::set<pid_t>& ignore);

} // namespace qv::image

#include "image/Holders.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <vector>

#include "sys/ProcFiles.h"
#include "sys/ProcList.h"

namespace qv::image {

namespace {

bool holds(pid_t pid, const std::string& root) {
    const std::string base = "/proc/" + std::to_string(pid);
    for (const char* link : {"/cwd", "/root", "/exe"})
        if (pathIsUnder(QVReadProcLink(base + link), root)) return true;
    // A process whose root directory is under the volume sees "/" as root; only
    // a root of "/" is the ordinary case.
    if (DIR* fds = ::opendir((base + "/fd").c_str())) {
        bool found = false;
        while (dirent* e = ::readdir(fds)) {
            if (e->d_name[0] == '.') continue;
            if (pathIsUnder(QVReadProcLink(base + "/fd/" + e->d_name), root)) {
                found = true;
                break;
            }
        }
        ::closedir(fds);
        if (found) return true;
    }
    std::ifstream maps(base + "/maps");
    for (std::string line; std::getline(maps, line);) {
        // address perms offset dev inode path
        size_t slash = line.find('/');
        if (slash == std::string::npos) continue;
        if (pathIsUnder(QVWithoutDeletedMark(line.substr(slash)), root)) return true;
    }
    return false;
}

} // namespace

bool pathIsUnder(const std::string& path, const std::string& root) {
    if (path.empty() || root.empty()) return false;
    if (root == "/") return path[0] == '/';
    return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                            path[root.size()] == '/');
}

std::optional<Holder> findHolder(const std::string& root, const std::set<pid_t>& ignore) {
    std::vector<pid_t> pids = QVProcessIds();
    std::sort(pids.begin(), pids.end());
    const pid_t self = ::getpid();
    for (pid_t pid : pids) {
        if (pid == self || ignore.count(pid)) continue;
        if (holds(pid, root)) {
            Holder h;
            h.pid = pid;
            h.name = QVProcessName(pid);
            return h;
        }
    }
    return std::nullopt;
}

} // namespace qv::image

#include "image/Holders.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "image/Helpers.h"

namespace qv::image {

namespace {

std::string linkTarget(const std::string& link) {
    char buf[PATH_MAX + 1];
    ssize_t n = ::readlink(link.c_str(), buf, PATH_MAX);
    if (n <= 0) return {};
    std::string target(buf, size_t(n));
    const std::string deleted = " (deleted)";
    if (target.size() > deleted.size() && target.compare(target.size() - deleted.size(), deleted.size(), deleted) == 0)
        target.resize(target.size() - deleted.size());
    return target;
}

bool holds(pid_t pid, const std::string& root) {
    const std::string base = "/proc/" + std::to_string(pid);
    for (const char* link : {"/cwd", "/root", "/exe"})
        if (pathIsUnder(linkTarget(base + link), root)) return true;
    // A process whose root directory is under the volume sees "/" as root; only
    // a root of "/" is the ordinary case.
    if (DIR* fds = ::opendir((base + "/fd").c_str())) {
        bool found = false;
        while (dirent* e = ::readdir(fds)) {
            if (e->d_name[0] == '.') continue;
            if (pathIsUnder(linkTarget(base + "/fd/" + e->d_name), root)) {
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
        std::string path = line.substr(slash);
        const std::string deleted = " (deleted)";
        if (path.size() > deleted.size() && path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0)
            path.resize(path.size() - deleted.size());
        if (pathIsUnder(path, root)) return true;
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
    std::vector<pid_t> pids;
    if (DIR* proc = ::opendir("/proc")) {
        while (dirent* e = ::readdir(proc)) {
            char* end = nullptr;
            long pid = std::strtol(e->d_name, &end, 10);
            if (pid > 0 && !*end) pids.push_back(pid_t(pid));
        }
        ::closedir(proc);
    }
    std::sort(pids.begin(), pids.end());
    const pid_t self = ::getpid();
    for (pid_t pid : pids) {
        if (pid == self || ignore.count(pid)) continue;
        if (holds(pid, root)) {
            Holder h;
            h.pid = pid;
            h.name = processName(pid);
            return h;
        }
    }
    return std::nullopt;
}

} // namespace qv::image

#include "disk/ToolPaths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "toolkit/PathText.h"

namespace qv {

namespace {

bool isExecutableFile(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::string executableDirectory() {
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return {};
    return QVParentPath(std::string(buffer, static_cast<size_t>(n)));
}

std::string joinPath(const std::string& dir, const std::string& name) {
    if (!dir.empty() && dir.back() == '/') return dir + name;
    return dir + "/" + name;
}

} // namespace

std::string QVToolPath(const std::string& name) {
    if (const char* dir = std::getenv("QV_TOOL_DIR"); dir && *dir) {
        std::string base = dir;
        if (base.front() != '/') {
            // The runner wants absolute paths: a relative directory is taken from here.
            char cwd[4096];
            if (::getcwd(cwd, sizeof cwd)) base = joinPath(cwd, base);
        }
        return joinPath(base, name);
    }
    std::vector<std::string> dirs;
    if (std::string exeDir = executableDirectory(); !exeDir.empty()) dirs.push_back(exeDir);
    dirs.push_back("/usr/local/bin");
    dirs.push_back("/usr/bin");
    for (const auto& dir : dirs) {
        std::string candidate = joinPath(dir, name);
        if (isExecutableFile(candidate)) return candidate;
    }
    return joinPath("/usr/bin", name);
}

bool QVToolExists(const std::string& name) { return isExecutableFile(QVToolPath(name)); }

} // namespace qv

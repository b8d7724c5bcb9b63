#include "toolkit/PathText.h"

namespace qv {

std::string QVTrimmedPath(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string QVParentPath(const std::string& path) {
    const std::string p = QVTrimmedPath(path);
    const size_t slash = p.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : p.substr(0, slash);
}

std::string QVPathByAppendingComponent(const std::string& dir, const std::string& name) {
    return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string QVLastPathComponent(const std::string& path) {
    const std::string p = QVTrimmedPath(path);
    const size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

} // namespace qv

#include "toolkit/PathText.h"

namespace qv {

std::string QVTrimmedPath(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string QVLastPathComponent(const std::string& path) {
    const std::string p = QVTrimmedPath(path);
    const size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

} // namespace qv

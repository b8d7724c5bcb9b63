#include "disk/TempLeftovers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "disk/DiskMasterSupport.h"
#include "disk/FileSystemVolumes.h"
#include "toolkit/Log.h"

namespace qv {

namespace {

bool isOldEmptyDirectory(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (::time(nullptr) - st.st_mtime < QVTempLeftoverAgeSeconds) return false;
    std::error_code ec;
    return std::filesystem::is_empty(path, ec) && !ec;
}

} // namespace

void QVCleanTempLeftovers(const std::string& tempDir) {
    std::error_code ec;
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(tempDir, ec)) entries.push_back(entry.path().string());
    if (ec) return;
    for (const auto& path : entries) {
        if (isDeadVolumeAtURL(path)) {
            QVLogInfo("taking away the dead volume left at " + path);
            QVError error;
            diskmaster::runImageTool({"detach", path, "-force"}, std::nullopt, &error);
            if (!error.empty()) {
                QV_LOG_WARN(QVFormat("couldn't take the dead volume at '%s' away: %s", path.c_str(),
                                     diskmaster::trimmedMessage(error.description).c_str()));
                continue;
            }
            // Its mount point goes with it, whatever its age: no task can use it now.
            if (::rmdir(path.c_str()) != 0 && errno != ENOENT)
                QV_LOG_WARN(QVFormat("couldn't remove '%s': %s", path.c_str(), std::strerror(errno)));
        } else if (isOldEmptyDirectory(path)) {
            ::rmdir(path.c_str());
        }
    }
    // rmdir refuses a Temp that has gained an entry since.
    if (std::filesystem::is_empty(tempDir, ec) && !ec) ::rmdir(tempDir.c_str());
}

} // namespace qv

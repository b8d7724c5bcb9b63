#include "disk/TempLeftovers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "disk/DiskMasterSupport.h"
#include "disk/FileSystemVolumes.h"
#include "disk/RescueFolder.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

bool isOldEmptyDirectory(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (::time(nullptr) - st.st_mtime < QVTempLeftoverAgeSeconds) return false;
    std::error_code ec;
    return std::filesystem::is_empty(path, ec) && !ec;
}

bool detachDeadOrOrphan(const std::string& path, const char* what) {
    QVLogInfo(QVFormat("taking away the %s left at %s", what, path.c_str()));
    QVError error;
    diskmaster::runImageTool({"detach", path, "-force"}, std::nullopt, &error);
    if (error.empty()) return true;
    QV_LOG_WARN(QVFormat("couldn't take the %s at '%s' away: %s", what, path.c_str(),
                         diskmaster::trimmedMessage(error.description).c_str()));
    return false;
}

// A rescue folder that no living restore claims: its volume (a dead restore
// mounted the image there, and the image can't be mounted anywhere else while
// it stays) is taken away, then the folder and its owner file go.
void cleanRescueFolder(const std::string& path) {
    if (QVRescueFolderIsClaimed(path)) return;
    if ((isVolumeAtURL(path, nullptr) || isDeadVolumeAtURL(path)) &&
        !detachDeadOrOrphan(path, "volume of a dead restore"))
        return;
    if (::rmdir(path.c_str()) != 0 && errno != ENOENT) {
        QV_LOG_WARN(QVFormat("couldn't remove '%s': %s", path.c_str(), std::strerror(errno)));
        return;
    }
    // Claimed again since? Then the owner file is the new restore's.
    if (!QVRescueFolderIsClaimed(path)) ::unlink(QVRescueFolderOwnerFile(path).c_str());
}

// "._Rescued Items.owner" -> "_Rescued Items", or "".
std::string rescueFolderOfOwnerFile(const std::string& name) {
    static const std::string suffix = ".owner";
    if (name.size() <= suffix.size() + 1 || name[0] != '.' || !name.ends_with(suffix)) return {};
    std::string folder = name.substr(1, name.size() - suffix.size() - 1);
    return QVIsRescueFolderName(folder) ? folder : std::string();
}

} // namespace

void QVCleanTempLeftovers(const std::string& tempDir) {
    std::error_code ec;
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(tempDir, ec)) entries.push_back(entry.path().string());
    if (ec) return;
    for (const auto& path : entries) {
        const std::string name = std::filesystem::path(path).filename().string();
        if (QVIsRescueFolderName(name)) {
            cleanRescueFolder(path);
        } else if (const std::string folder = rescueFolderOfOwnerFile(name); !folder.empty()) {
            // An owner file whose folder is gone; one whose folder stands goes with it.
            const std::string rescue = QVPathByAppendingComponent(tempDir, folder);
            struct stat st;
            if (::lstat(rescue.c_str(), &st) != 0 && errno == ENOENT && !QVRescueFolderIsClaimed(rescue))
                ::unlink(path.c_str());
        } else if (isDeadVolumeAtURL(path)) {
            if (!detachDeadOrOrphan(path, "dead volume")) continue;
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

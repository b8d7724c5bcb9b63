#include "disk/MountpointMode.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "disk/FileSystemVolumes.h"
#include "toolkit/Log.h"
#include "vault/Schemas.h"

namespace qv {

void QVGiveMountpointWriteAccess(const QVRecordRef& folder) {
    FolderRef f{folder};
    const Value kept = f.mountpointMode();
    if (kept.isNull()) return;
    const std::string path = QVFolderMountpointPath(folder);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
    const mode_t mode = mode_t(kept.toInt()) & 07777;
    if ((st.st_mode & 07777) != mode && ::chmod(path.c_str(), mode) != 0)
        QV_LOG_WARN(QVFormat("couldn't give '%s' its mode back: %s", path.c_str(), std::strerror(errno)));
}

bool QVTakeMountpointWriteAccess(const QVRecordRef& folder) {
    FolderRef f{folder};
    const std::string path = QVFolderMountpointPath(folder);
    struct stat st;
    if (path.empty() || ::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || isVolumeAtURL(path, nullptr))
        return false;
    bool changed = false;
    if (f.mountpointMode().isNull()) {
        f.setMountpointMode(Value(int64_t(st.st_mode & 07777)));
        changed = true;
    }
    if ((st.st_mode & 07777) != QVLockedMountpointMode && ::chmod(path.c_str(), QVLockedMountpointMode) != 0)
        QV_LOG_WARN(QVFormat("couldn't make the locked folder '%s' read-only: %s", path.c_str(), std::strerror(errno)));
    return changed;
}

} // namespace qv

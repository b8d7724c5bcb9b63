#include "disk/FileSystemIndexing.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "toolkit/AtomicFile.h"

namespace qv {

bool QVSetIndexingEnabled(const std::string& directory, bool enabled, QVError* error) {
    bool changed = false;
    for (const char* name : QVIndexMarkerFileNames) {
        const std::string path = directory + "/" + name;
        struct stat st;
        const bool present = ::lstat(path.c_str(), &st) == 0;
        if (enabled && present) {
            if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
                QVSetErrnoError(error, errno, "can't remove '" + path + "'");
                return false;
            }
            changed = true;
        } else if (!enabled && !present) {
            if (!QVWriteFileAtomically(path, {}, error, 0644)) return false;
        }
    }
    if (changed && !QVSyncDirectory(directory, error)) return false;
    return true;
}

bool QVIndexingEnabled(const std::string& directory) {
    for (const char* name : QVIndexMarkerFileNames) {
        struct stat st;
        if (::lstat((directory + "/" + name).c_str(), &st) == 0) return false;
    }
    return true;
}

} // namespace qv

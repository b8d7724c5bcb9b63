#include "app/FolderTaskMark.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "toolkit/Log.h"

namespace qv {

namespace {

// $XDG_RUNTIME_DIR/quillvane/tasks (0700), or /tmp/quillvane-<uid>/tasks
// where the session has no runtime directory.
std::string marksDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string base = runtime && *runtime ? std::string(runtime) + "/quillvane"
                                           : "/tmp/quillvane-" + std::to_string(::getuid());
    for (const std::string& dir : {base, base + "/tasks"}) {
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return {};
        struct stat st;
        // Somebody else's directory in a shared place must not take our marks.
        if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) return {};
    }
    return base + "/tasks";
}

bool isSafeName(const std::string& uuid) {
    if (uuid.empty() || uuid.size() > 64) return false;
    for (char c : uuid)
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-')) return false;
    return true;
}

int openMark(const std::string& uuid) {
    if (!isSafeName(uuid)) return -1;
    const std::string dir = marksDirectory();
    if (dir.empty()) {
        QV_LOG_ERROR("no private directory for the task marks");
        return -1;
    }
    return ::open((dir + "/" + uuid).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
}

} // namespace

std::unique_ptr<FolderTaskMark> FolderTaskMark::hold(const std::string& folderUuid) {
    const int fd = openMark(folderUuid);
    if (fd < 0) return nullptr;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<FolderTaskMark>(new FolderTaskMark(fd));
}

bool FolderTaskMark::isHeld(const std::string& folderUuid) {
    const int fd = openMark(folderUuid);
    if (fd < 0) return false;
    // A second open file description conflicts even with our own lock.
    const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

FolderTaskMark::~FolderTaskMark() {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

} // namespace qv

#include "disk/RenameAt.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace qv {

int QVRenameNoReplaceAt(int fromDir, const char* from, int toDir, const char* to) {
    if (::renameat2(fromDir, from, toDir, to, RENAME_NOREPLACE) == 0) return 0;
    const int err = errno;
    if (err != EINVAL && err != ENOSYS && err != ENOTSUP) return err;
    struct stat st;
    if (::fstatat(toDir, to, &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
    if (errno != ENOENT) return errno;
    // A real EINVAL (a folder into itself) comes back from the plain rename too.
    return ::renameat(fromDir, from, toDir, to) == 0 ? 0 : errno;
}

} // namespace qv

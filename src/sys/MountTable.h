#pragma once
// The mount table, as the kernel tells it in /proc/self/mountinfo, read with
// libmount. The kernel escapes space, tab, newline and backslash in its fields
// as a backslash and three octal digits ("\040"); only that is undone, any
// other backslash stays as it is.
#include <optional>
#include <string>
#include <vector>

namespace qv {

// One line of the table.
struct QVMountEntry {
    unsigned major = 0;
    unsigned minor = 0; // together: the st_dev of everything on it
    std::string root;   // the directory of the file system mounted here
    std::string mountPoint;
    std::string options;      // per-mount options (rw, nosuid, ...)
    std::string fsType;       // "ext4", "fuse.fuse2fs", "proc", ...
    std::string source;       // the device or what stands for it; may be empty
    std::string superOptions; // per-file-system options (user_id=..., ...)
};

// The mount table of this process, in the kernel's order (a later entry on a
// point hides the earlier ones). Empty (and logged) when it can't be read.
std::vector<QVMountEntry> QVReadMountTable();

// The same for a file in the format of /proc/<pid>/mountinfo. Lines that can't
// be parsed are left out. Empty, with *err set to the errno (when given), when
// the file can't be read.
std::vector<QVMountEntry> QVReadMountTableFile(const std::string& path, int* err = nullptr);

// The entry on top at exactly `mountPoint` (spelled as the table spells it:
// absolute, links resolved); nullopt when nothing is mounted there.
std::optional<QVMountEntry> QVMountAt(const std::string& mountPoint);

// The options that mount(8) keeps for the mount on top at `mountPoint` in its
// own table (x-gvfs-hide and the like: the kernel keeps none of them); empty
// when there are none or nothing is mounted there.
std::string QVUserMountOptions(const std::string& mountPoint);

} // namespace qv

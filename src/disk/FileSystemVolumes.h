#pragma once
// Questions about volumes and the items on them: is this path a mount point,
// what file system holds it, who mounted it, what kind of item is it.
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "sys/MountTable.h"
#include "toolkit/QVError.h"

namespace qv {

// True when `path` is the root of a mounted volume: its device differs from its
// parent's, or it is the mount point of an entry of the mount table (which also
// finds bind mounts and "/"). A path that doesn't exist, or that isn't a
// directory, is no volume and no error. Any other failure to look (no
// permission to search, say) gives false with *error set: the errno as code and
// "isVolume failed with error <n> for:\n\n<path>". A volume whose server died
// (ENOTCONN) still counts as mounted, since it must still be detached.
bool isVolumeAtURL(const std::string& path, QVError* error);

// A mounted volume at `path` whose file system no longer answers: its server
// died ("Transport endpoint is not connected"), or its root can't be read for
// an I/O error (the process serving the disk beneath it died). Such a volume
// must be taken away before anything can be mounted there again.
bool isDeadVolumeAtURL(const std::string& path);

// The same test after resolving every symbolic link of the path; a path that
// can't be resolved logs a warning and is no volume.
bool isVolumeAtPath(const std::string& path);

// The type of the file system that holds `path` ("ext4", "fuse.fuse2fs", ...),
// nullopt (logged) when the path can't be examined.
std::optional<std::string> fileSystemDescriptionAtMount(const std::string& path);

// Whether the file system holding `path` is mounted read-only.
bool isReadOnlyFSAtPath(const std::string& path);

// The uid of the user who mounted the volume holding `path`: a FUSE volume
// records it (user_id=); other volumes were mounted by the system (0). -1
// (logged) when the path can't be examined.
long ownerForPath(const std::string& path);

// The name of the volume that holds `path`: its file-system label (ext4's,
// read from the mounted file system, or from the device behind a FUSE mount).
// nullopt when the volume has no label or it can't be read.
std::optional<std::string> volnameAtURL(const std::string& path);

// Tells file managers that watch the item that it changed (a folder that was
// replaced, or that a volume was mounted on), by an attribute change that
// alters nothing: its mode set to what it is.
void notePathChanged(const std::string& path);

// The item itself (not what it points to) is a symbolic link.
bool isSymbolicLinkAtPath(const std::string& path);
// A symbolic link that leads to a directory: what stands for an alias of a folder.
bool isAliasFolderAtPath(const std::string& path);
// The path leads to a directory, following symbolic links.
bool isDirectoryAtPath(const std::string& path);

} // namespace qv

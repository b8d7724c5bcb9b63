#pragma once
// A locked folder is an empty directory that must not collect plaintext: while
// locked it is read-only for everyone, so that nothing saves files into a folder
// that is supposed to be protected. Its own mode is kept in the folder's record
// (`mountpointMode`) and given back whenever a volume is to be mounted on it,
// since an unprivileged mount needs write access to its mount point.
#include <sys/types.h>

#include "vault/QVRecord.h"

namespace qv {

inline constexpr mode_t QVLockedMountpointMode = 0555;

// Just before a mount on the folder's own path: the mode the record keeps
// given back (nothing happens for a folder that never had it taken).
void QVGiveMountpointWriteAccess(const QVRecordRef& folder);

// After the volume left the folder's own path (or before the first mount): the
// directory's mode kept in the record, unless one is kept already, and the
// directory made read-only. True when the record changed and its Folder Set
// must be saved. A path that is not a plain directory is left alone.
bool QVTakeMountpointWriteAccess(const QVRecordRef& folder);

} // namespace qv

#pragma once
// rename(2) that never replaces what is at the destination. The kernel does
// this atomically with RENAME_NOREPLACE, but some file systems (fuse2fs among
// them, which serves every image volume without privilege) refuse the flag with
// EINVAL. There the destination is looked at first and the plain rename follows:
// the window between the two is open only to processes racing inside our own
// directories, which none of ours does.
namespace qv {

// 0 or an errno; EEXIST when something is at `toDir`/`to`.
int QVRenameNoReplaceAt(int fromDir, const char* from, int toDir, const char* to);

} // namespace qv

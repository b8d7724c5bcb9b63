#pragma once
// Marks the ext4 file system on a disk as having errors, so that the next
// attach repairs it before mounting.
//
// A file system in user space that was refused a write (the disk holding the
// image full, an I/O error) goes on as if the block were on disk and, at
// unmount, still writes its superblock as clean: the next mount would trust
// bitmaps or tables that never reached the disk. The device process knows
// better, and says so in the superblock once the file system has let go.
#include "image/BandStore.h"

namespace qv::image {

// 0, or an errno value (EINVAL when the disk holds no ext4 superblock).
int markFileSystemForCheck(DiskStore& disk);

} // namespace qv::image

#include "image/FileSystemMark.h"

#include <ext2fs/ext2_fs.h>
#include <ext2fs/ext2fs.h>

#include <cerrno>
#include <cstddef>

namespace qv::image {

int markFileSystemForCheck(DiskStore& disk) {
    ext2_super_block sb {};
    static_assert(sizeof sb == SUPERBLOCK_SIZE);
    if (disk.size() < SUPERBLOCK_OFFSET + SUPERBLOCK_SIZE) return EINVAL;
    auto* bytes = reinterpret_cast<uint8_t*>(&sb);
    if (int err = disk.read(SUPERBLOCK_OFFSET, SUPERBLOCK_SIZE, bytes)) return err;
    if (sb.s_magic != EXT2_SUPER_MAGIC) return EINVAL;
    sb.s_state |= EXT2_ERROR_FS;
    // A superblock whose checksum does not match is not read at all: the
    // mark must keep it valid.
    if (ext2fs_has_feature_metadata_csum(&sb))
        sb.s_checksum = ext2fs_cpu_to_le32(ext2fs_crc32c_le(~0U, bytes, offsetof(ext2_super_block, s_checksum)));
    return disk.write(SUPERBLOCK_OFFSET, SUPERBLOCK_SIZE, bytes);
}

} // namespace qv::image

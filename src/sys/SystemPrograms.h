#pragma once
// The system programs that the core and qv-image drive. They are run by
// absolute path, never looked up through PATH.
namespace qv {

inline constexpr const char* kMkfsExt4 = "/usr/sbin/mkfs.ext4";
inline constexpr const char* kE2fsck = "/usr/sbin/e2fsck";
inline constexpr const char* kResize2fs = "/usr/sbin/resize2fs";
inline constexpr const char* kDebugfs = "/usr/sbin/debugfs";
inline constexpr const char* kFuse2fs = "/usr/bin/fuse2fs";
inline constexpr const char* kFusermount3 = "/usr/bin/fusermount3";
inline constexpr const char* kMount = "/usr/bin/mount";
inline constexpr const char* kUmount = "/usr/bin/umount";
inline constexpr const char* kLosetup = "/usr/sbin/losetup";

} // namespace qv

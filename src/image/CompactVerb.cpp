// compact: gives the free blocks of the file system back to the host. The
// disk is served for the verb alone; every range of free blocks is discarded,
// which punches holes in the bands and deletes bands left empty.
#include <fcntl.h>
#include <linux/falloc.h>
#include <unistd.h>

#include <ext2fs/ext2fs.h>

#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VerbSupport.h"
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"

namespace qv::image {

namespace {

struct FreeRanges {
    std::vector<std::pair<uint64_t, uint64_t>> ranges;  // byte offset, length
    uint64_t freeBytes = 0;                             // free space of the file system
};

// The free blocks of the ext4 on `disk`, from its block bitmap, and the space
// of the disk beyond the end of the file system.
bool findFreeRanges(const std::string& disk, uint64_t diskSize, FreeRanges* out, QVError* error) {
    ext2_filsys fs = nullptr;
    errcode_t err = ext2fs_open2(disk.c_str(), nullptr, EXT2_FLAG_64BITS, 0, 0, unix_io_manager, &fs);
    if (err) return fail(error, QVImageExitFailure, std::string("cannot open the file system: ") + error_message(err));
    err = ext2fs_read_block_bitmap(fs);
    if (err) {
        ext2fs_close_free(&fs);
        return fail(error, QVImageExitFailure, std::string("cannot read the block bitmap: ") + error_message(err));
    }
    const uint64_t blockSize = fs->blocksize;
    const blk64_t first = fs->super->s_first_data_block;
    const blk64_t last = ext2fs_blocks_count(fs->super) - 1;
    blk64_t start = first;
    while (start <= last) {
        blk64_t freeStart = 0, used = 0;
        if (ext2fs_find_first_zero_block_bitmap2(fs->block_map, start, last, &freeStart) != 0) break;
        blk64_t freeEnd = last;
        if (ext2fs_find_first_set_block_bitmap2(fs->block_map, freeStart, last, &used) == 0) freeEnd = used - 1;
        const uint64_t length = (freeEnd - freeStart + 1) * blockSize;
        out->ranges.emplace_back(freeStart * blockSize, length);
        out->freeBytes += length;
        start = freeEnd + 1;
    }
    const uint64_t fsEnd = ext2fs_blocks_count(fs->super) * blockSize;
    if (fsEnd < diskSize) out->ranges.emplace_back(fsEnd, diskSize - fsEnd);
    ext2fs_close_free(&fs);
    return true;
}

} // namespace

int runCompact(const std::vector<std::string>& words, const VerbContext&, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-stdinpass"}, {}, &args, error)) return exitStatusOf(error);
    ImageBundle image;
    SecureBytes key;
    if (!openLockedWithKey(args, &image, &key, error)) return exitStatusOf(error);

    const uint64_t before = image.storedBytes();
    TemporaryDevice device;
    if (!device.start(image, key, 0, error)) return exitStatusOf(error);
    // The bitmaps of a file system that was not left clean can't be trusted.
    if (!checkFileSystem(image, device.disk(), false, error)) return exitStatusOf(error);
    FreeRanges free;
    if (!findFreeRanges(device.disk(), image.info().size, &free, error)) return exitStatusOf(error);
    UniqueFd fd(::open(device.disk().c_str(), O_RDWR | O_CLOEXEC));
    if (!fd) return refuseErrno(error, errno, "cannot open the disk");
    for (const auto& [offset, length] : free.ranges) {
        if (::fallocate(fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(offset), off_t(length)) != 0)
            return refuseErrno(error, errno, "cannot discard free space");
    }
    if (::fsync(fd.get()) != 0) return refuseErrno(error, errno, "cannot sync the disk");
    // Closed before the device stops: it stops only once nobody has the disk open.
    fd.reset();
    if (!device.stop(error)) return exitStatusOf(error);
    const uint64_t after = image.storedBytes();
    const uint64_t reclaimed = before > after ? before - after : 0;
    std::printf("Reclaimed %s out of %s possible.\n", humanSize(reclaimed).c_str(), humanSize(free.freeBytes).c_str());
    if (std::fflush(stdout) != 0) return refuse(error, QVImageExitFailure, "cannot write to standard output");
    return QVImageExitOK;
}

} // namespace qv::image

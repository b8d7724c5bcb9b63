// The mark a device process leaves on a file system after a refused write:
// the superblock says "errors" and stays valid (its checksum renewed), so
// that the next attach repairs the file system instead of refusing it.
#include <ext2fs/ext2_fs.h>
#include <ext2fs/ext2fs.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "image/FileSystemMark.h"
#include "support/TempHome.h"

namespace {

using qv::image::DiskStore;

// A disk held in memory.
class MemoryDisk final : public DiskStore {
public:
    explicit MemoryDisk(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    uint64_t size() const override { return bytes_.size(); }
    int read(uint64_t offset, size_t length, uint8_t* out) override {
        std::memcpy(out, bytes_.data() + offset, length);
        return 0;
    }
    int write(uint64_t offset, size_t length, const uint8_t* in) override {
        std::memcpy(bytes_.data() + offset, in, length);
        ++writes;
        return 0;
    }
    int discard(uint64_t offset, uint64_t length) override {
        std::memset(bytes_.data() + offset, 0, length);
        return 0;
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    int writes = 0;

private:
    std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(FileSystemMark, MarksAnExt4SuperblockWithErrorsAndKeepsItsChecksumValid) {
    const std::string dir = qv::test::makeTempDir("qv-fsmark");
    const std::string image = dir + "/disk";
    // The file system qv-image makes on its disks, with metadata checksums.
    const std::string mkfs = "mkfs.ext4 -q -F -b 4096 -O ^extent,^64bit,metadata_csum -m 0 '" + image + "' 16M";
    ASSERT_EQ(std::system(mkfs.c_str()), 0);
    MemoryDisk disk(slurp(image));

    ASSERT_EQ(qv::image::markFileSystemForCheck(disk), 0);
    {
        std::ofstream out(image, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(disk.bytes().data()), std::streamsize(disk.bytes().size()));
    }
    // libext2fs refuses a superblock whose checksum does not match.
    ext2_filsys fs = nullptr;
    ASSERT_EQ(ext2fs_open2(image.c_str(), nullptr, 0, 0, 0, unix_io_manager, &fs), 0)
        << "the marked superblock no longer opens";
    EXPECT_TRUE(ext2fs_has_feature_metadata_csum(fs->super));
    EXPECT_TRUE(fs->super->s_state & EXT2_ERROR_FS);
    EXPECT_TRUE(fs->super->s_state & EXT2_VALID_FS) << "nothing but the error flag changes";
    ext2fs_close_free(&fs);
    std::filesystem::remove_all(dir);
}

TEST(FileSystemMark, LeavesADiskWithoutExt4Alone) {
    MemoryDisk zeros(std::vector<uint8_t>(64 * 1024, 0));
    EXPECT_EQ(qv::image::markFileSystemForCheck(zeros), EINVAL);
    MemoryDisk tiny(std::vector<uint8_t>(1024, 0));
    EXPECT_EQ(qv::image::markFileSystemForCheck(tiny), EINVAL);
    EXPECT_EQ(zeros.writes + tiny.writes, 0);
}

} // namespace

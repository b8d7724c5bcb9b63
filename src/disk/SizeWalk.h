#pragma once
// Measuring a folder tree: how much disk it takes (512-byte blocks, each inode
// counted once however many hard links it has), whether it passes a size or a
// number of items (stopping as soon as it does), and the logical size of its
// files for progress and free-space checks.
//
// Walks never follow symbolic links and never change the working directory, so
// any number of them can run at once on different threads.
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace qv {

// Remembers the inodes with more than one link that a walk has met, so that
// each is counted once. An inode leaves the table when its last link is met,
// so a walk of a tree whose hard links all lie inside it ends with the table empty.
// One table serves one walk on one thread.
class QVHardLinkTable {
public:
    // True when (st_dev, st_ino) was met before in this walk. Only inodes with
    // st_nlink >= 2 should be asked about.
    bool seen(const struct stat& st);
    size_t size() const { return entries_.size(); }
    // Set once memory ran out; from then on new inodes are no longer tracked
    // (and so may be counted more than once).
    bool outOfMemory() const { return outOfMemory_; }

private:
    struct Key {
        dev_t dev;
        ino_t ino;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        size_t operator()(const Key& k) const noexcept { return std::hash<uint64_t>()(k.dev ^ (k.ino * 0x9E3779B97F4A7C15ull)); }
    };
    std::unordered_map<Key, nlink_t, KeyHash> entries_;  // links still to be met
    bool outOfMemory_ = false;
};

// The number of 512-byte blocks the tree at `path` occupies, or -1 (logged) when
// some part of it can't be read. A file of 2 TiB or more counts its size in
// blocks instead of its allocation.
int64_t num512BlocksInDir(const std::string& path);

// num512BlocksInDir in MiB (rounded down), or its negative result as it came.
int64_t approxSizeOfFolderAtPath(const std::string& path);

// 1 as soon as the tree passes `blocks` 512-byte blocks, 0 when the walk ended
// below it or failed, -1 when no walk could start (an empty path).
int folderAtPathAtLeast(const std::string& path, uint64_t blocks);

// Whether the tree passes `mib` MiB (folderAtPathAtLeast gives 1).
bool folderAtPath(const std::string& path, uint64_t mib);

// 1 as soon as `count` items other than directories (and ".DS_Store") were met,
// 0 when the walk ended first, -1 on a failure.
int folderFileCountAtLeast(const std::string& path, uint64_t count);

// Asked before each item with the bytes counted so far in the whole walk; true
// stops the walk.
using QVSizeCancelBlock = std::function<bool(uint64_t bytesSoFar)>;

// The sum of the logical sizes (st_size) of everything under `path` that is not
// a directory; hard links are counted at each name. A subfolder we may not read
// counts as 0 with a warning; any other failure gives -1 (logged). When the
// callback stops the walk, the total so far comes back: the caller, who asked
// for the stop, must not take it for the size.
int64_t fastFolderSizeAtFSRef(const std::string& path, const QVSizeCancelBlock& cancelBlock);

} // namespace qv

#pragma once
// The copy and move engine: a folder's contents into an image and back, and an
// image from one storage to another, with a status callback about once a
// second that can cancel.
//
// What is kept: regular files (sparse ones stay sparse), directories, symbolic
// links (dangling ones too), hard links among the copied items (as hard links),
// FIFOs, sockets and device nodes, permissions, times (access and
// modification, to the nanosecond), extended attributes, access ACLs and the
// default ACLs of directories, and ownership when we run as root (otherwise
// the group when we may). Names are bytes: spaces, newlines and text that is
// not UTF-8 are copied as they are.
//
// What a stopped copy leaves: the destination item stays as far as it got.
// Every file in it is whole; the file being copied when the copy was cancelled
// or failed is removed. Folders still being filled keep the private mode 0700
// the copy gave them. A move that has to copy (to another file system) removes
// its source only once the copy is whole and on disk, so a cancel or a failure
// never costs the source anything.
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

// Options of a copy or move; callers pass them as numbers.
enum QVFileOperationOptions : unsigned {
    QVFileOperationDefaultOptions = 0,
    // An existing destination item is replaced, but only once the new one is whole.
    QVFileOperationOverwrite = 0x01,
    // A source item we may not read is left out with a warning instead of failing the copy.
    QVFileOperationSkipSourcePermissionErrors = 0x02,
    // A move that can't be done by renaming fails (EXDEV) instead of copying.
    QVFileOperationDoNotMoveAcrossVolumes = 0x04,
    // No measuring beforehand: no totals in the status, no free-space check.
    QVFileOperationSkipPreflight = 0x08,
};

struct QVCopyStatus {
    uint64_t bytesCompleted = 0;  // logical bytes of what is done, counted as fastFolderSizeAtFSRef counts them
    double throughput = 0;        // bytes per second since the start
    uint64_t itemsCompleted = 0;
    uint64_t totalBytes = 0;      // 0 unless measured beforehand
    uint64_t totalItems = 0;      // 0 unless measured beforehand
    std::string currentItem;      // path of the source item being copied
};

// Called on the copying thread about once a second with an error code (0 while
// all goes well) and the status; true cancels the operation.
using QVCopyCancelBlock = std::function<bool(long errorCode, const QVCopyStatus& status)>;

// The core of the four operations below. The working item is
// `destination`/`destinationName` (the source's own name when none is given).
// - Copy: the source item is copied to the working item. With `upOneLevel` the
//   copy first lands in a hidden folder in `destination`, whose children are
//   then moved up into `destination` itself (all but the names of
//   QVLiftSkipList, which are dropped); the hidden folder goes when all moved,
//   and stays, with what could not move, when some failed (code 1006).
// - Move: the source is renamed to the working item, or, across file systems,
//   copied and then removed. Nothing is lifted.
// Errors are in the application's domain: 1000 cancelled, 1006 some children
// not lifted, or the errno of the failure, with "Error during copy: ...".
bool copyOrMoveContentsFrom(const std::string& source, const std::string& destination,
                            const std::optional<std::string>& destinationName, unsigned options, bool upOneLevel,
                            const QVCopyCancelBlock& cancelBlock, bool move, QVError* error);

// Moves `source` to `destination`/`destinationName`.
bool moveContentsFrom(const std::string& source, const std::string& destination,
                      const std::optional<std::string>& destinationName, unsigned options,
                      const QVCopyCancelBlock& cancelBlock, QVError* error);

// Copies the contents of the folder `source` into the folder `destination`.
bool copyContentsFrom(const std::string& source, const std::string& destination, unsigned options,
                      const QVCopyCancelBlock& cancelBlock, QVError* error);

// Copies `source` to `destination`/`destinationName`, its contents lifted into
// `destination` when `upOneLevel`.
bool copyContentsFrom(const std::string& source, const std::string& destination,
                      const std::optional<std::string>& destinationName, unsigned options, bool upOneLevel,
                      const QVCopyCancelBlock& cancelBlock, QVError* error);

// Names that are never lifted into the destination: what desktops and file
// systems keep at a volume's root for themselves, and a volume's own
// "lost+found" and ".hidden".
const std::vector<std::string>& QVLiftSkipList();

// The prefix of the hidden folder in which a copy with `upOneLevel` lands
// before its children are lifted: one left in a destination holds what a
// stopped or partial copy did not lift.
inline constexpr const char* QVCopyWorkingPrefix = ".qvcopy-";

// Removes the item at `path` and all below it, opening up for their owner the
// folders that are not writable. 0, or the errno of the first failure.
int QVRemoveTree(const std::string& path);

// Time between two status calls; one second unless a test asks for another.
void QVCopySetStatusInterval(std::chrono::milliseconds interval);

} // namespace qv

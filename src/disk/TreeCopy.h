#pragma once
// The copy engine's inner piece: one item, and all below it, copied to a new
// item in an open directory: data with its holes, hard links as links,
// symbolic links, special files, attributes, ACLs, owner, mode and times, with
// progress about once an interval and cancel from the caller's block.
#include <dirent.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "disk/CopyEngine.h"
#include "sys/UniqueFd.h"

namespace qv::copyengine {

using DirStream = std::unique_ptr<DIR, int (*)(DIR*)>;

inline bool isDotOrDotDot(const char* n) { return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0')); }

// Copies one item (and all below it) to a new item in an open directory.
class TreeCopy {
public:
    TreeCopy(unsigned options, const QVCopyCancelBlock& callback, uint64_t totalBytes)
        // The first item reports at once: a cancel asked for before the copy
        // began stops it there, however short the copy.
        : options_(options), callback_(callback), start_(std::chrono::steady_clock::now()),
          lastStatus_(start_ - std::chrono::hours(1)) {
        status_.totalBytes = totalBytes;
    }

    // `source` to `dstName` in `dstDir`; with `intoExisting` the source is a
    // folder and `dstName` a folder we made for it, which takes its contents.
    bool run(const std::string& source, int dstDir, const std::string& dstName, bool intoExisting);

    bool cancelled() const { return cancelled_; }
    int errorCode() const { return error_; }
    const QVCopyStatus& status() const { return status_; }

private:
    std::string currentPath(const char* name = nullptr) const;

    std::string relativePath(const char* name) const;

    bool fail(int err, const char* what, const char* name = nullptr);

    // A source item that couldn't be read: gone since the listing (nothing to
    // copy), left out when the options allow it for want of permission, or the
    // end of the copy. True to go on.
    bool leaveOut(int err, const char* what, const char* name);

    // Counts progress, and about once an interval tells the caller, who may cancel.
    bool advance(uint64_t bytes, const char* name);

    bool itemDone(uint64_t bytes, const char* name);

    bool copyEntry(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName);

    bool copyDirectory(UniqueFd src, const struct stat& st, int dstDir, const char* dstName, bool intoExisting,
                       bool root);

    bool copyRegular(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName);

    // The data of a file, holes kept as holes.
    bool copyData(int in, int out, off_t size, const char* name);

    bool copyRange(int in, int out, off_t start, off_t end, const char* name, bool& atEnd);

    // Attributes, owner, mode, ACLs and times, in the order that keeps each:
    // a change of owner clears set-id bits, so the mode follows it; writing
    // touches the times, so they come last.
    bool applyMetadata(int src, int dst, const struct stat& st, bool directory, const char* name);

    // As root the owner is kept; otherwise the group, where we belong to it.
    template <typename Chown>
    bool chownAsAllowed(Chown chown, const struct stat& st, const char* name);

    bool copySymlink(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName);

    bool copySpecial(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName);

    // Metadata of items that can't be opened for it: links, FIFOs, sockets, devices.
    bool finishNonFile(int srcDir, const char* name, const struct stat& st, int dstDir, const char* dstName,
                       bool hasMode);

    struct LinkKey {
        dev_t dev;
        ino_t ino;
        bool operator==(const LinkKey&) const = default;
    };
    struct LinkKeyHash {
        size_t operator()(const LinkKey& k) const noexcept {
            return std::hash<uint64_t>()(k.dev ^ (k.ino * 0x9E3779B97F4A7C15ull));
        }
    };

    unsigned options_;
    const QVCopyCancelBlock& callback_;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastStatus_;
    QVCopyStatus status_;
    std::string sourceRoot_;
    std::vector<std::string> trail_; // names from the source root down to the current folder
    int dstRoot_ = -1;               // the copied root folder, for hard links by relative path
    std::unordered_map<LinkKey, std::string, LinkKeyHash> links_; // first copy of each multi-link inode
    std::vector<char> buffer_;
    bool useCopyFileRange_ = true;
    bool cancelled_ = false;
    int error_ = 0;
};

} // namespace qv::copyengine

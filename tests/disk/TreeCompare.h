#pragma once
// Compares two directory trees entry by entry: kinds, names (as bytes), modes,
// owners, sizes, contents, modification times, link targets, hard-link groups,
// extended attributes, ACLs and whether sparse files stayed sparse.
#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

namespace qv::test {

struct TreeEntry {
    struct stat st {};
    std::string linkTarget;                     // symbolic links
    std::map<std::string, std::string> xattrs;  // every name but "system.*"
    std::string accessAcl;                      // extended access ACL text, empty when the mode says all
    std::string defaultAcl;                     // directories
    std::string linkGroup;                      // for a file with several names in the tree: the first of them
};

// Every entry below `root` (not the root itself) by path relative to it.
std::map<std::string, TreeEntry> scanTree(const std::string& root);

struct CompareOptions {
    bool owners = true;
    bool rootMetadata = false;  // also compare the two roots' own mode, times, attributes, ACLs
    // Modification times to the second: the fuse2fs layer of an image volume
    // reports whole seconds only.
    bool wholeSeconds = false;
};

// One line per difference; empty when the trees agree.
std::vector<std::string> compareTrees(const std::string& expected, const std::string& actual,
                                      const CompareOptions& options = {});

// Whole contents of a file, or "<unreadable>".
std::string readWhole(const std::string& path);

} // namespace qv::test

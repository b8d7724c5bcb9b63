#pragma once
// Compares two directory trees entry by entry: kinds, names (as bytes), modes,
// owners, sizes, contents, modification times, link targets, hard-link groups,
// extended attributes, ACLs and whether sparse files stayed sparse.
#include <string>
#include <vector>

namespace qv::test {

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

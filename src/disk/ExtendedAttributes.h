#pragma once
// Extended attributes of an item, by path (following symbolic links), and the
// copy of all of them from one item to another for the copy engine.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv {

// The names of the item's extended attributes (empty when it has none);
// nullopt (logged) on failure.
std::optional<std::vector<std::string>> xattrNamesAtPath(const std::string& path);

// The value of one attribute. nullopt without a log when the item has no such
// attribute or its value is empty; nullopt with a log on other failures.
std::optional<std::vector<uint8_t>> xattrDataForName(const std::string& name, const std::string& path);

// Sets one attribute: 0, ENOENT (with a warning) when the item is missing, or the errno.
int setData(const std::vector<uint8_t>& data, const std::string& name, const std::string& path);

// Copies every extended attribute of the open item `srcFd` to `dstFd`. The
// "system." names are left to the ACL copy. Attributes in the "user." namespace
// must arrive; those of the privileged namespaces ("trusted.", "security.")
// that we may not set are skipped. Returns 0 or the errno of the first failure,
// with the attribute's name in *failedName.
int QVCopyXattrs(int srcFd, int dstFd, std::string* failedName);

// The same for items named by path without following a final symbolic link
// (symbolic links can't be opened for this).
int QVCopyXattrsNoFollow(const std::string& srcPath, const std::string& dstPath, std::string* failedName);

} // namespace qv

#pragma once
// Moving and renaming single items within a file system, never over an
// existing item, and removing a folder only when it is empty.
#include <optional>
#include <string>

namespace qv {

// Moves the item into `directory` under its own name. nullopt (logged) when an
// item of that name is there already or the rename fails; else the new path.
std::optional<std::string> moveFile(const std::string& path, const std::string& directory);

// Moves the item into the folder above its own folder.
std::optional<std::string> moveFileUpADirectory(const std::string& path);

// Renames the item to `newName` in its folder; refuses an existing name and a
// name that is no single path component. The new path, or nullopt (logged).
std::optional<std::string> renameItemAtPath(const std::string& path, const std::string& newName);

// Renames the item to `newName`, or, when that name is taken, to the name with
// the time of day put before its extension ("a.txt" -> "a 12-30-45.txt",
// "a" -> "a 12-30-45"; a number follows if even that is taken). The path used,
// or nullopt (logged).
std::optional<std::string> forceRenameItemAtPath(const std::string& path, const std::string& newName);

// Removes the folder when it holds nothing but perhaps a ".DS_Store". Whether it was removed.
bool deleteIfEmpty(const std::string& path);

} // namespace qv

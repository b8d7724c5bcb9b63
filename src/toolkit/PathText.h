#pragma once
// Paths as text: the few operations on path strings that every layer needs,
// done one way everywhere. Nothing here touches the file system.
#include <string>

namespace qv {

// The path without trailing slashes; "/" stays "/".
std::string QVTrimmedPath(std::string path);

// The folder that holds the path, trailing slashes ignored: "/a/b/" gives
// "/a", "/a" gives "/", a bare name gives ".".
std::string QVParentPath(const std::string& path);

// `name` inside the folder `dir`: "/a" and "b" give "/a/b", "/" and "b" give "/b".
std::string QVPathByAppendingComponent(const std::string& dir, const std::string& name);

// The last component of the path, trailing slashes ignored ("/a/b/" gives "b");
// the whole text when it holds no slash; "" for "/".
std::string QVLastPathComponent(const std::string& path);

} // namespace qv

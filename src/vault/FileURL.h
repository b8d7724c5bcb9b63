#pragma once
// File URLs as they are written in keyed archives.
#include <optional>
#include <string>

namespace qv {

// "file://" and the path with every byte outside the URL path character set
// percent-escaped ("/a b" -> "file:///a%20b").
std::string QVFileURLStringFromPath(const std::string& path);
// The absolute path of a "file://" URL ("file://localhost/..." too), escapes decoded;
// nothing for another scheme, a relative path, a bad escape or an escaped NUL.
std::optional<std::string> QVPathFromFileURLString(const std::string& url);

} // namespace qv

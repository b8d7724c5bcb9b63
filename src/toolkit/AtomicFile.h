#pragma once
// Durable replacement of a file the program owns: the new content goes to a
// temporary file in the same directory, is fsync'ed, renamed over the target,
// and the directory is fsync'ed, so a crash leaves either the old or the new file.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

bool QVWriteFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes, QVError* error,
                           unsigned mode = 0600);
// Reads a whole file; nullopt with a POSIX error on failure, EFBIG for a file
// larger than `maxBytes`.
std::optional<std::vector<uint8_t>> QVReadFile(const std::string& path, QVError* error, size_t maxBytes = SIZE_MAX);
// fsync of a directory, so that a rename or a new entry in it is durable.
bool QVSyncDirectory(const std::string& dir, QVError* error);

} // namespace qv

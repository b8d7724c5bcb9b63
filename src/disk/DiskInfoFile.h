#pragma once
// The file "diskinfo" inside an image directory: the settings the image was
// made with (encryption, file system, capacity) and the folder's image
// password as stored in its Folder Set (still encrypted under the set's
// password), kept beside the bands so that an image carried elsewhere still
// says what it is. An XML property list with a format version.
#include <optional>
#include <string>

#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

inline constexpr const char* QVDiskInfoFileName = "diskinfo";
// The key of the format version, and the version this program writes.
inline constexpr const char* QVDiskInfoVersionKey = "version";
inline constexpr int64_t QVDiskInfoFileVersion = 1;

// The dictionary to write for a folder: every field of its DiskInfo record but
// "url" and "protocol", then "password" (the folder's `password` data, or the
// empty string when it has none), "capacity" and the version. nullptr with
// error 1001 for a folder without a DiskInfo, or a field that holds no value.
DictRef QVDiskInfoDictionaryForFolder(const QVRecordRef& folder, QVError* error);

// Writes <diskinfo.url>/diskinfo atomically (mode 0600). Returns nothing on
// success, else the error (also logged).
std::optional<QVError> QVDiskInfoSerializeFromFolder(const QVRecordRef& folder);

// Reads the diskinfo of the image at `imagePath`. nullptr with an error when the
// file is missing or unreadable, larger than any plain property list or refused
// by the property-list guard, is not a dictionary, or carries no version or a
// version newer than this program knows.
DictRef QVDiskInfoRead(const std::string& imagePath, QVError* error);

} // namespace qv

#pragma once
// Dated copies of the master file in the "Backups" folder beside it; the 40 newest are kept.
#include <string>

namespace qv {

inline constexpr size_t QVMaxBackups = 40;

// The path with the local date and time appended in `format` (strftime),
// before any extension: "database3" -> "database3 2026-11-23 101530".
std::string pathByAppendingDateFormat(const std::string& path, const std::string& format);

// Copies the master file into the backup folder as "<name> <date><suffix>" and
// prunes the folder to the newest 40. Failures are logged and give false.
bool backupQuillvaneDatabaseWithSuffix(const std::string& suffix);
bool backupQuillvaneDatabase();

} // namespace qv

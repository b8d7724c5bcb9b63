#pragma once
// Whether desktop search indexers may look into a volume. Indexing is turned
// off by marker files at the volume's root that the indexers honour:
// ".trackerignore" (GNOME's indexer) and ".nomedia" (media scanners and
// others). The program qv-index runs these for the disk-image engine.
#include <string>

#include "toolkit/QVError.h"

namespace qv {

inline constexpr const char* QVIndexMarkerFileNames[] = {".trackerignore", ".nomedia"};

// Writes (off) or removes (on) both markers in `directory`. False with *error
// set (POSIX domain) when one couldn't be written or removed.
bool QVSetIndexingEnabled(const std::string& directory, bool enabled, QVError* error);

// True unless a marker is present.
bool QVIndexingEnabled(const std::string& directory);

} // namespace qv

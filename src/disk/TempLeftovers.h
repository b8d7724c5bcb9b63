#pragma once
// What processes that died in the middle of a task leave in a storage's Temp
// directory, cleaned at the next start: temporary mount points whose volume
// died with them (taken away), rescue folders of restores that died (their
// image taken away, live or dead), and temporary directories left empty.
#include <string>

namespace qv {

// How long an empty directory in Temp stays: one younger may be the mount
// point that a running task has just made and is about to mount on.
inline constexpr long QVTempLeftoverAgeSeconds = 600;

// Cleans `tempDir` (a storage's Temp; nothing happens when it is missing):
// each entry that is a dead volume is detached, each empty directory older
// than QVTempLeftoverAgeSeconds removed, each rescue folder that no living
// restore claims detached and removed (disk/RescueFolder.h), and Temp itself
// when left empty. Other live volumes and images are left alone: a running
// task may own them.
void QVCleanTempLeftovers(const std::string& tempDir);

} // namespace qv

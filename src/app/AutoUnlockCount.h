#pragma once
// How many folders, over all Folder Sets, are marked to unlock at login. It is
// the one thing about auto-unlock kept outside the encrypted database: the user
// default QVNeedsAutounlock, so that the next launch knows whether to ask for a
// password, and nothing about which set or folder it is.
//
// Process-wide and thread-safe: an increment reads, changes and writes the
// default under one lock, and writes it to disk before it returns.
#include <cstdint>

namespace qv {

class AutoUnlockCount {
public:
    // Adds `delta` (negative to take away) to the stored count; a result below
    // zero is stored as 0. The settings file is synchronised at once. Returns
    // the new count.
    static int64_t increment(int64_t delta);
    // The stored count (0 when none was ever stored), never negative.
    static int64_t count();
};

} // namespace qv

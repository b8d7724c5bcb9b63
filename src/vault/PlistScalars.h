#pragma once
// The values of libplist's scalar nodes (booleans, integers, reals, data,
// dates), read the same way by the plain property lists and the keyed archives.
// Strings are left to each reader: the archive checks their text itself.
#include <plist/plist.h>

#include <optional>

#include "vault/Value.h"

namespace qv {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of property-list dates.
inline constexpr double kSecondsFrom1970To2001 = 978307200.0;

// The node's value; nullopt for a node that is no scalar, or a date libplist
// could not hold in 32-bit seconds (it hands those out with the microseconds
// beyond their range).
std::optional<Value> QVPlistScalarValue(plist_t node);

} // namespace qv

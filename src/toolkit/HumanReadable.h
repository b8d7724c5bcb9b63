#pragma once
// Sizes and durations as the user reads them.
#include <cstdint>
#include <string>

namespace qv {

// Decimal units, as the GNOME file manager and most Linux desktops show sizes:
// 1 kB is 1000 bytes, 1 MB 1000 kB, and so on to EB. Below 1000: "0 bytes",
// "1 byte", "999 bytes"; above, one decimal rounded to the nearest: "1.5 GB",
// "209.7 MB". The decimal mark is always "." whatever the locale, so that a status
// line reads the same in the program and in its logs.
std::string bytesToHumanReadableString(uint64_t bytes);

// A duration rounded to whole seconds, in its two largest units with the zero ones
// left out: "1 second", "45 seconds", "2 minutes 5 seconds", "3 hours", "1 day
// 4 hours". A negative, infinite or undefined duration reads "unknown".
std::string timeIntervalToHumanReadableString(double seconds);

} // namespace qv

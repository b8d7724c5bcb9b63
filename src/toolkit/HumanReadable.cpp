#include "toolkit/HumanReadable.h"

#include <cmath>

namespace qv {

namespace {

std::string countOf(uint64_t n, const char* singular, const char* plural) {
    return std::to_string(n) + " " + (n == 1 ? singular : plural);
}

} // namespace

std::string bytesToHumanReadableString(uint64_t bytes) {
    if (bytes < 1000) return countOf(bytes, "byte", "bytes");
    static const char* const units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    // Integer arithmetic (128 bits, as ten times 2^64 overflows 64) so that the
    // rounding is exact and no locale's decimal mark gets in.
    unsigned __int128 unit = 1000;
    size_t index = 0;
    unsigned __int128 tenths = 0;
    for (;;) {
        tenths = ((unsigned __int128)bytes * 10 + unit / 2) / unit;
        // 999.95 kB rounds to 1000.0 kB: that is 1.0 MB.
        if (tenths < 10000 || index + 1 == std::size(units)) break;
        unit *= 1000;
        ++index;
    }
    uint64_t t = (uint64_t)tenths;
    return std::to_string(t / 10) + "." + std::to_string(t % 10) + " " + units[index];
}

std::string timeIntervalToHumanReadableString(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) return "unknown";
    // Beyond this a count of days is meaningless for a status line anyway.
    if (seconds > 1e15) seconds = 1e15;
    uint64_t s = (uint64_t)std::llround(seconds);
    struct Unit {
        uint64_t size;
        const char* singular;
        const char* plural;
    };
    static const Unit units[] = {
        {86400, "day", "days"}, {3600, "hour", "hours"}, {60, "minute", "minutes"}, {1, "second", "seconds"}};
    for (size_t i = 0; i < std::size(units); ++i) {
        if (s < units[i].size && i + 1 < std::size(units)) continue;
        std::string text = countOf(s / units[i].size, units[i].singular, units[i].plural);
        if (i + 1 < std::size(units)) {
            uint64_t rest = (s % units[i].size) / units[i + 1].size;
            if (rest) text += " " + countOf(rest, units[i + 1].singular, units[i + 1].plural);
        }
        return text;
    }
    return "unknown";  // not reached: the last unit always answers
}

} // namespace qv

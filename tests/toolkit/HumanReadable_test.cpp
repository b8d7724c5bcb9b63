// Sizes and durations for status lines: unit boundaries and rounding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "toolkit/HumanReadable.h"

using namespace qv;

TEST(HumanReadable, BytesAndDurationsRoundAcrossUnitBoundaries) {
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, "0 bytes"}, {1, "1 byte"}, {999, "999 bytes"}, {1000, "1.0 kB"}, {1050, "1.1 kB"},
        {999949, "999.9 kB"}, {999950, "1.0 MB"}, {209715200, "209.7 MB"}, {1500000000, "1.5 GB"},
        {UINT64_MAX, "18.4 EB"}};
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(bytesToHumanReadableString(bytes), text) << bytes;

    const std::pair<double, const char*> durations[] = {
        {0, "0 seconds"}, {1, "1 second"}, {59.6, "1 minute"}, {125, "2 minutes 5 seconds"},
        {3659, "1 hour"}, {7320, "2 hours 2 minutes"}, {86400 * 3 + 3600, "3 days 1 hour"},
        {-1, "unknown"}, {NAN, "unknown"}, {INFINITY, "unknown"}, {1e300, "11574074074 days 1 hour"}};
    for (const auto& [seconds, text] : durations)
        EXPECT_EQ(timeIntervalToHumanReadableString(seconds), text) << seconds;
}

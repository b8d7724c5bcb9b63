// Sizes and durations for status lines: unit boundaries and rounding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "toolkit/HumanReadable.h"

using namespace qv;

TEST(HumanReadable, BytesAndDurationsRoundAcrossUnitBoundaries) {
    const std::pair<uint64_t, const char*> sizes[] = {
        {1, "1 byte"}, {999, "999 bytes"}, {999949, "999.9 kB"}, {999950, "1.0 MB"}, {UINT64_MAX, "18.4 EB"}};
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(bytesToHumanReadableString(bytes), text) << bytes;
    const std::pair<double, const char*> durations[] = {
        {1, "1 second"}, {59.6, "1 minute"}, {125, "2 minutes 5 seconds"}, {3659, "1 hour"},
        {86400 * 3 + 3600, "3 days 1 hour"}, {NAN, "unknown"}, {1e300, "11574074074 days 1 hour"}};
    for (const auto& [seconds, text] : durations) EXPECT_EQ(timeIntervalToHumanReadableString(seconds), text) << seconds;
}

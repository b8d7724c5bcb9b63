// Sizes and durations for status lines: unit boundaries and rounding.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "toolkit/HumanReadable.h"

using namespace qv;

TEST(HumanReadable, BytesAndDurationsRoundAcrossUnitBoundaries) {
    EXPECT_EQ(bytesToHumanReadableString(999950), "1.0 MB");
    EXPECT_EQ(bytesToHumanReadableString(UINT64_MAX), "18.4 EB");
    EXPECT_EQ(timeIntervalToHumanReadableString(125), "2 minutes 5 seconds");
    EXPECT_EQ(timeIntervalToHumanReadableString(NAN), "unknown");
    EXPECT_EQ(timeIntervalToHumanReadableString(1e300), "11574074074 days 1 hour");
}

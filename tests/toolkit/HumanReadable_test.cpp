// Sizes and durations for status lines: unit boundaries and rounding.
#include <gtest/gtest.h>

#include <cstdint>

#include "toolkit/HumanReadable.h"

using namespace qv;

TEST(HumanReadable, BytesUseDecimalUnitsAndRoundAcrossUnitBoundaries) {
    EXPECT_EQ(bytesToHumanReadableString(0), "0 bytes");
    EXPECT_EQ(bytesToHumanReadableString(1), "1 byte");
    EXPECT_EQ(bytesToHumanReadableString(999), "999 bytes");
    EXPECT_EQ(bytesToHumanReadableString(1000), "1.0 kB");
    EXPECT_EQ(bytesToHumanReadableString(1049), "1.0 kB");
    EXPECT_EQ(bytesToHumanReadableString(1050), "1.1 kB") << "half rounds up";
    EXPECT_EQ(bytesToHumanReadableString(999949), "999.9 kB");
    EXPECT_EQ(bytesToHumanReadableString(999950), "1.0 MB") << "1000.0 kB is shown in the next unit";
    EXPECT_EQ(bytesToHumanReadableString(209715200), "209.7 MB") << "200 MiB";
    EXPECT_EQ(bytesToHumanReadableString(1500000000), "1.5 GB");
    EXPECT_EQ(bytesToHumanReadableString(4000000000000ull), "4.0 TB");
    EXPECT_EQ(bytesToHumanReadableString(UINT64_MAX), "18.4 EB") << "the failure value is still text";
}

TEST(HumanReadable, DurationsShowTheTwoLargestUnitsAndSayUnknownForNonsense) {
    EXPECT_EQ(timeIntervalToHumanReadableString(0), "0 seconds");
    EXPECT_EQ(timeIntervalToHumanReadableString(1), "1 second");
    EXPECT_EQ(timeIntervalToHumanReadableString(59.4), "59 seconds");
    EXPECT_EQ(timeIntervalToHumanReadableString(59.6), "1 minute") << "rounded before splitting";
    EXPECT_EQ(timeIntervalToHumanReadableString(125), "2 minutes 5 seconds");
    EXPECT_EQ(timeIntervalToHumanReadableString(3600), "1 hour");
    EXPECT_EQ(timeIntervalToHumanReadableString(3600 + 59), "1 hour") << "seconds below two units are dropped";
    EXPECT_EQ(timeIntervalToHumanReadableString(7320), "2 hours 2 minutes");
    EXPECT_EQ(timeIntervalToHumanReadableString(86400 * 3 + 3600), "3 days 1 hour");
    EXPECT_EQ(timeIntervalToHumanReadableString(-1), "unknown");
    EXPECT_EQ(timeIntervalToHumanReadableString(0.0 / 0.0), "unknown");
    EXPECT_EQ(timeIntervalToHumanReadableString(1.0 / 0.0), "unknown");
    EXPECT_EQ(timeIntervalToHumanReadableString(1e300), "11574074074 days 1 hour") << "clamped, not overflowed";
}

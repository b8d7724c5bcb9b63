// Band file names: the band's number in lower-case hexadecimal without leading
// zeros; nothing else in bands/ is taken for a band.
#include <gtest/gtest.h>

#include <cstdint>

#include "image/BandStore.h"

using namespace qv::image;

TEST(BandName, NumbersAreLowerCaseHexWithoutLeadingZeros) {
    EXPECT_EQ(bandName(0), "0");
    EXPECT_EQ(bandName(9), "9");
    EXPECT_EQ(bandName(10), "a");
    EXPECT_EQ(bandName(31), "1f");
    EXPECT_EQ(bandName(0xabcdef), "abcdef");
    EXPECT_EQ(bandName(UINT64_MAX), "ffffffffffffffff");
    for (uint64_t band : {uint64_t(0), uint64_t(1), uint64_t(15), uint64_t(16), uint64_t(255), uint64_t(2097151),
                          uint64_t(0x123456789abcdef0), UINT64_MAX})
        EXPECT_EQ(parseBandName(bandName(band)), band) << band;
}

TEST(BandName, OtherNamesAreNotBands) {
    for (const char* name : {"", "00", "01", "A", "1F", "g", "-1", "+1", " 1", "1 ", "0x1", "1.tmp", ".1",
                             "10000000000000000", "fffffffffffffffff"})
        EXPECT_FALSE(parseBandName(name)) << "'" << name << "'";
}

// Plain property lists written from Values: what a list can't hold is refused,
// not written as something else.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "vault/PropertyList.h"

using namespace qv;

TEST(PropertyList, DatesBeyondThirtyTwoBitSecondsAreNotWritten) {
    constexpr double k2001 = 978307200.0;
    for (double date : {k2001, k2001 + 2147483647.0, k2001 - 2147483648.0, 1700000000.5})
        EXPECT_TRUE(QVPropertyListToXML(Value::newArray({Value::date(date)}))) << date;
    // Converting these to 32-bit seconds was undefined behaviour (found by the fuzzer).
    for (double date : {k2001 + 2147483648.0, k2001 - 2147483649.0, 1e300, -1e300,
                        std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()})
        EXPECT_FALSE(QVPropertyListToXML(Value::newDict({{"when", Value::date(date)}}))) << date;
}

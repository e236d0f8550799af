#include "CoreKit/Measure.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace tavrick;

TEST(Measure, DescribesNumbersRoundedHalfAwayFromZeroOrUnbounded) {
    constexpr double twoTo63 = 9223372036854775808.0;
    constexpr double inf = std::numeric_limits<double>::infinity();
    const struct {
        double value;
        const char* expected;
    } cases[] = {
        {inf, "unbounded"},
        {std::numeric_limits<double>::quiet_NaN(), "unbounded"},
        {2.5, "3"},
        {-2.5, "-3"},
        {-0.5, "-1"},
        {1.5, "2"},  // away from zero, not to even
        {0.49999999999999994, "0"},  // the largest double below one half
        {-0.4, "0"},  // never "-0"
        {1234.4999, "1234"},
        {4503599627370497.0, "4503599627370497"},  // 2^52 + 1, no precision lost
        {twoTo63, "9223372036854775808"},  // the limit itself is still a number
        {-twoTo63, "-9223372036854775808"},
        {std::nextafter(twoTo63, inf), "unbounded"},
        {std::nextafter(-twoTo63, -inf), "unbounded"},
        {std::numeric_limits<double>::max(), "unbounded"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Measure::describe(c.value), c.expected) << "value " << c.value;
    }
}

TEST(Measure, DescribesSizesAsWidthByHeight) {
    const struct {
        Size size;
        const char* expected;
    } cases[] = {
        {{800.4, 600.5}, "800x601"},
        {{0, 0}, "0x0"},
        {{-0.2, 1920}, "0x1920"},
        {{std::numeric_limits<double>::infinity(), 44.5}, "unboundedx45"},
        {{320, std::numeric_limits<double>::quiet_NaN()}, "320xunbounded"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Measure::describe(c.size), c.expected) << c.size.width << " by " << c.size.height;
    }
}

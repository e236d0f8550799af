#include "CoreKit/Measure.h"

#include <cmath>
#include <cstdio>

namespace tavrick::Measure {

std::string describe(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(value) || std::fabs(value) > limit) return "unbounded";
    double rounded = std::round(value);
    // -0.4 rounds to -0; a size never reads "-0".
    if (rounded == 0) rounded = 0;
    // Every double of this magnitude is an integer that "%.0f" prints exactly.
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", rounded);
    return text;
}

std::string describe(Size size) {
    return describe(size.width) + "x" + describe(size.height);
}

} // namespace tavrick::Measure

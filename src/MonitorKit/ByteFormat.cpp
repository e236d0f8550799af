#include "MonitorKit/ByteFormat.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrick::ByteFormat {

std::string compact(std::uint64_t bytes) {
    static const char* const units[] = {"KB", "MB", "GB", "TB", "PB"};
    if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    // Move up a unit when rounding would show 1024 or more of this one.
    while (unit + 1 < std::size(units) && std::round(value * 10) / 10 >= 1024.0) {
        value /= 1024.0;
        ++unit;
    }
    char buffer[32];
    if (std::round(value * 10) / 10 < 100.0) {
        std::snprintf(buffer, sizeof buffer, "%.1f %s", value, units[unit]);
    } else {
        std::snprintf(buffer, sizeof buffer, "%.0f %s", value, units[unit]);
    }
    return buffer;
}

std::string percent(double fraction) {
    if (!std::isfinite(fraction)) fraction = 0;
    fraction = std::clamp(fraction, 0.0, 1.0);
    return std::to_string(static_cast<int>(std::lround(fraction * 100))) + "%";
}

} // namespace tavrick::ByteFormat

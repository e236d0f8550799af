#pragma once

#include <optional>

namespace tavrick {

// One fan as it stands in the fan controller; speeds in rpm. `mode` is missing where the
// controller has no mode key for the fan or it could not be read: 0 automatic, 1 manual, 3 system.
struct FanReading {
    int index = 0;
    double actual = 0;
    double minimum = 0;
    double maximum = 0;
    double target = 0;
    std::optional<int> mode;
    friend bool operator==(const FanReading&, const FanReading&) = default;
};

} // namespace tavrick

#pragma once

#include "CoreKit/Modifiers.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace tavrick {

// One contact as the trackpad reports it, in normalised pad units (0 to 1 across the pad, y
// growing upwards).
struct Touch {
    std::int32_t id = 0;
    double x = 0;
    double y = 0;
    double pressure = 0;
    bool isTouching = false;

    friend bool operator==(const Touch&, const Touch&) = default;
};

struct PadPoint {
    double x = 0;
    double y = 0;
    friend bool operator==(const PadPoint&, const PadPoint&) = default;
};

// Everything the driver reported at one instant, the lifted contacts included. Times are seconds
// with no fixed epoch.
struct TouchFrame {
    std::vector<Touch> touches;
    double timestamp = 0;

    // How many touches are touching; cheaper than `active().size()`.
    std::size_t activeCount() const;
    // The touches that are touching, in order.
    std::vector<Touch> active() const;
    // The mean of the active touches; nothing without any.
    std::optional<PadPoint> centroid() const;
    // The mean distance of the active touches from their centroid; nothing below two touches.
    std::optional<double> spread() const;

    friend bool operator==(const TouchFrame&, const TouchFrame&) = default;
};

} // namespace tavrick

template <>
struct std::hash<tavrick::Touch> {
    std::size_t operator()(const tavrick::Touch& touch) const noexcept {
        std::size_t seed = std::hash<std::int32_t>{}(touch.id);
        tavrick::hashCombine(seed, std::hash<double>{}(touch.x));
        tavrick::hashCombine(seed, std::hash<double>{}(touch.y));
        tavrick::hashCombine(seed, std::hash<double>{}(touch.pressure));
        tavrick::hashCombine(seed, std::hash<bool>{}(touch.isTouching));
        return seed;
    }
};

template <>
struct std::hash<tavrick::TouchFrame> {
    std::size_t operator()(const tavrick::TouchFrame& frame) const noexcept {
        std::size_t seed = std::hash<double>{}(frame.timestamp);
        for (const auto& touch : frame.touches) tavrick::hashCombine(seed, std::hash<tavrick::Touch>{}(touch));
        return seed;
    }
};

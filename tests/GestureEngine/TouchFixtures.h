#pragma once

#include "CoreKit/Models.h"
#include "GestureEngine/TouchFrame.h"

#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavrick::testing {

// A frame of touching fingers with ids 1, 2, 3... at the given pad positions.
inline TouchFrame hand(double time, std::vector<std::pair<double, double>> points) {
    TouchFrame frame;
    frame.timestamp = time;
    std::int32_t id = 1;
    for (auto [x, y] : points) frame.touches.push_back(Touch{id++, x, y, 0.5, true});
    return frame;
}

// `count` fingers in a row around (x, y), 0.0625 apart, so that centroids stay exact.
inline TouchFrame fingers(double time, int count, double x = 0.5, double y = 0.5) {
    std::vector<std::pair<double, double>> points;
    for (int i = 0; i < count; ++i) points.emplace_back(x + 0.0625 * (i - (count - 1) / 2.0), y);
    return hand(time, points);
}

inline TouchFrame lifted(double time) {
    return TouchFrame{{}, time};
}

inline Mapping gestureMapping(std::string name, GestureSpec spec, bool enabled = true,
                              ActionSpec action = ActionSpec::window(WindowCommand::leftHalf)) {
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = std::move(name);
    mapping.trigger = Trigger::gesture(spec);
    mapping.action = std::move(action);
    mapping.isEnabled = enabled;
    return mapping;
}

inline GestureSpec swipe(int fingers, GestureDirection direction) {
    return GestureSpec{fingers, GestureKind::swipe, direction};
}

// What `action` threw, or nothing when it returned.
template <class F>
std::optional<std::string> thrown(F&& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return std::nullopt;
}

} // namespace tavrick::testing

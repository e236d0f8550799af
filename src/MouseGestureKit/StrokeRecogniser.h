#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/MouseGesture.h"

#include <optional>
#include <span>
#include <vector>

namespace tavrick {

// Distances in points.
struct StrokeConfig {
    // How far from the start a path must reach to be a gesture at all.
    double minimumTravel = 30;
    // Movement from the last anchor before the path can yield a direction.
    double minimumSegment = 18;

    friend bool operator==(const StrokeConfig&, const StrokeConfig&) = default;
};

// Turns a path drawn with the right button into at most three strokes. Points are in global
// event coordinates, y growing downwards.
struct StrokeRecogniser {
    StrokeConfig config;

    // The greatest distance from the first point to any other; 0 for an empty path.
    static double travel(std::span<const Point> points);
    // Empty for a path too small to be a gesture, and for one of four strokes or more: a scribble
    // must not trigger anything.
    std::vector<GestureDirection> strokes(std::span<const Point> points) const;
    // Horizontal when |dy|·tolerance < |dx|, vertical when |dx|·tolerance < |dy|, else nothing.
    static std::optional<GestureDirection> direction(double dx, double dy, double tolerance);
};

} // namespace tavrick

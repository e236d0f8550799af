#include "MouseGestureKit/StrokeRecogniser.h"

#include <cmath>

namespace tavrick {

double StrokeRecogniser::travel(std::span<const Point> points) {
    if (points.empty()) return 0;
    const Point first = points.front();
    double farthest = 0;
    for (const auto& point : points) {
        const double distance = std::hypot(point.x - first.x, point.y - first.y);
        if (distance > farthest) farthest = distance;
    }
    return farthest;
}

std::vector<GestureDirection> StrokeRecogniser::strokes(std::span<const Point> points) const {
    std::vector<GestureDirection> result;
    if (points.size() < 2 || !(travel(points) >= config.minimumTravel)) return result;
    Point anchor = points.front();
    for (std::size_t i = 1; i < points.size(); ++i) {
        const double x = points[i].x - anchor.x, y = points[i].y - anchor.y;
        if (!(std::hypot(x, y) >= config.minimumSegment)) continue;
        GestureDirection direction;
        if (2 * std::abs(y) < std::abs(x)) {
            direction = x > 0 ? GestureDirection::right : GestureDirection::left;
        } else if (2 * std::abs(x) < std::abs(y)) {
            direction = y > 0 ? GestureDirection::down : GestureDirection::up;
        } else {
            // Diagonal: the anchor stays until the path commits to an axis.
            continue;
        }
        if (!result.empty() && result.back() == direction) {
            anchor = points[i];
            continue;
        }
        result.push_back(direction);
        if (result.size() > MouseGestureSpec::maximumStrokes) return {};
        anchor = points[i];
    }
    return result;
}

std::optional<GestureDirection> StrokeRecogniser::direction(double dx, double dy, double tolerance) {
    if (std::abs(dy) * tolerance < std::abs(dx)) return dx > 0 ? GestureDirection::right : GestureDirection::left;
    if (std::abs(dx) * tolerance < std::abs(dy)) return dy > 0 ? GestureDirection::down : GestureDirection::up;
    return std::nullopt;
}

} // namespace tavrick

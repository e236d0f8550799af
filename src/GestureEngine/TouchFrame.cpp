#include "GestureEngine/TouchFrame.h"

#include <cmath>

namespace tavrick {

std::size_t TouchFrame::activeCount() const {
    std::size_t count = 0;
    for (const auto& touch : touches) count += touch.isTouching ? 1 : 0;
    return count;
}

std::vector<Touch> TouchFrame::active() const {
    std::vector<Touch> result;
    result.reserve(touches.size());
    for (const auto& touch : touches) {
        if (touch.isTouching) result.push_back(touch);
    }
    return result;
}

std::optional<PadPoint> TouchFrame::centroid() const {
    double sumX = 0, sumY = 0;
    std::size_t count = 0;
    for (const auto& touch : touches) {
        if (!touch.isTouching) continue;
        sumX += touch.x;
        sumY += touch.y;
        ++count;
    }
    if (count == 0) return std::nullopt;
    return PadPoint{sumX / static_cast<double>(count), sumY / static_cast<double>(count)};
}

std::optional<double> TouchFrame::spread() const {
    const auto centre = centroid();
    if (!centre) return std::nullopt;
    double sum = 0;
    std::size_t count = 0;
    for (const auto& touch : touches) {
        if (!touch.isTouching) continue;
        sum += std::hypot(touch.x - centre->x, touch.y - centre->y);
        ++count;
    }
    if (count < 2) return std::nullopt;
    return sum / static_cast<double>(count);
}

} // namespace tavrick

#include "Platform/X11/X11Geometry.h"

#include <algorithm>
#include <cmath>

namespace tavrick {

std::optional<Strut> Strut::fromCardinals(const std::vector<std::uint32_t>& values, XRect root) {
    Strut strut;
    if (values.size() == 12) {
        strut.left = values[0];
        strut.right = values[1];
        strut.top = values[2];
        strut.bottom = values[3];
        strut.leftStartY = values[4];
        strut.leftEndY = values[5];
        strut.rightStartY = values[6];
        strut.rightEndY = values[7];
        strut.topStartX = values[8];
        strut.topEndX = values[9];
        strut.bottomStartX = values[10];
        strut.bottomEndX = values[11];
        return strut;
    }
    if (values.size() == 4) {
        strut.left = values[0];
        strut.right = values[1];
        strut.top = values[2];
        strut.bottom = values[3];
        strut.leftStartY = strut.rightStartY = root.y;
        strut.leftEndY = strut.rightEndY = root.y + root.height - 1;
        strut.topStartX = strut.bottomStartX = root.x;
        strut.topEndX = strut.bottomEndX = root.x + root.width - 1;
        return strut;
    }
    return std::nullopt;
}

namespace X11Geometry {

XRect outerFrame(XRect client, FrameExtents extents) {
    return {client.x - extents.left, client.y - extents.top, client.width + extents.left + extents.right,
            client.height + extents.top + extents.bottom};
}

XRect clientFrame(XRect outer, FrameExtents extents) {
    return {outer.x + extents.left, outer.y + extents.top,
            std::max<std::int32_t>(1, outer.width - extents.left - extents.right),
            std::max<std::int32_t>(1, outer.height - extents.top - extents.bottom)};
}

namespace {
// Whether the closed span [start, end] meets the half-open [low, low + length).
bool overlaps(std::int64_t start, std::int64_t end, std::int64_t low, std::int64_t length) {
    return start < low + length && end >= low;
}
} // namespace

XRect visibleArea(XRect monitor, const std::vector<Strut>& struts, XRect root) {
    std::int64_t left = monitor.x;
    std::int64_t top = monitor.y;
    std::int64_t right = std::int64_t{monitor.x} + monitor.width;
    std::int64_t bottom = std::int64_t{monitor.y} + monitor.height;
    const std::int64_t rootRight = std::int64_t{root.x} + root.width;
    const std::int64_t rootBottom = std::int64_t{root.y} + root.height;
    for (const auto& s : struts) {
        if (s.top > 0 && overlaps(s.topStartX, s.topEndX, monitor.x, monitor.width)) {
            const std::int64_t edge = root.y + s.top;
            if (edge > monitor.y) top = std::max(top, edge);
        }
        if (s.bottom > 0 && overlaps(s.bottomStartX, s.bottomEndX, monitor.x, monitor.width)) {
            const std::int64_t edge = rootBottom - s.bottom;
            if (edge < std::int64_t{monitor.y} + monitor.height) bottom = std::min(bottom, edge);
        }
        if (s.left > 0 && overlaps(s.leftStartY, s.leftEndY, monitor.y, monitor.height)) {
            const std::int64_t edge = root.x + s.left;
            if (edge > monitor.x) left = std::max(left, edge);
        }
        if (s.right > 0 && overlaps(s.rightStartY, s.rightEndY, monitor.y, monitor.height)) {
            const std::int64_t edge = rootRight - s.right;
            if (edge < std::int64_t{monitor.x} + monitor.width) right = std::min(right, edge);
        }
    }
    // A strut wider than the monitor leaves nothing rather than a negative size.
    left = std::min(left, std::int64_t{monitor.x} + monitor.width);
    top = std::min(top, std::int64_t{monitor.y} + monitor.height);
    right = std::max(right, left);
    bottom = std::max(bottom, top);
    return {static_cast<std::int32_t>(left), static_cast<std::int32_t>(top), static_cast<std::int32_t>(right - left),
            static_cast<std::int32_t>(bottom - top)};
}

Rect toScreen(XRect rect, XRect first) {
    const double flippedY = double(first.y) + first.height - (double(rect.y) + rect.height);
    return Rect{{double(rect.x) - first.x, flippedY}, {double(rect.width), double(rect.height)}};
}

Point toWindowPoint(std::int32_t x, std::int32_t y, XRect first) {
    return Point{double(x) - first.x, double(y) - first.y};
}

std::int32_t rootX(double x, XRect first) {
    return static_cast<std::int32_t>(std::lround(x)) + first.x;
}

std::int32_t rootY(double y, XRect first) {
    return static_cast<std::int32_t>(std::lround(y)) + first.y;
}

} // namespace X11Geometry

} // namespace tavrick

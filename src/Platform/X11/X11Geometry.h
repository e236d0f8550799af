#pragma once

#include "CoreKit/Geometry.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tavrick {

// Geometry as the X server gives it: whole pixels, origin at the top-left of the root window.
struct XRect {
    std::int32_t x = 0;
    std::int32_t y = 0;
    std::int32_t width = 0;
    std::int32_t height = 0;
    bool operator==(const XRect&) const = default;
};

// The space a window manager puts around a client window (`_NET_FRAME_EXTENTS`).
struct FrameExtents {
    std::int32_t left = 0;
    std::int32_t right = 0;
    std::int32_t top = 0;
    std::int32_t bottom = 0;
    bool operator==(const FrameExtents&) const = default;
};

// What a dock or panel reserves at the root window's edges (`_NET_WM_STRUT_PARTIAL`).
struct Strut {
    std::int64_t left = 0, right = 0, top = 0, bottom = 0;
    std::int64_t leftStartY = 0, leftEndY = 0, rightStartY = 0, rightEndY = 0;
    std::int64_t topStartX = 0, topEndX = 0, bottomStartX = 0, bottomEndX = 0;

    // From the property's cardinals: twelve for the partial form, four for the older
    // `_NET_WM_STRUT` (which spans the whole edge). Nothing for any other count.
    static std::optional<Strut> fromCardinals(const std::vector<std::uint32_t>& values, XRect root);
};

namespace X11Geometry {

// The outer frame of a client at `client` (root coordinates) with `extents` around it.
XRect outerFrame(XRect client, FrameExtents extents);
// The client geometry that gives the outer frame `outer`; sizes never below one pixel.
XRect clientFrame(XRect outer, FrameExtents extents);
// `monitor` without what the struts reserve on it; a strut on another monitor's part of the same
// edge leaves it as it is.
XRect visibleArea(XRect monitor, const std::vector<Strut>& struts, XRect root);

// The display coordinates the window logic uses: origin at the bottom-left of the first monitor,
// y upward.
Rect toScreen(XRect rect, XRect firstMonitor);
// Window coordinates of the logic: origin at the top-left of the first monitor, y downward.
Point toWindowPoint(std::int32_t x, std::int32_t y, XRect firstMonitor);
// And back to root coordinates, rounded to the nearest pixel.
std::int32_t rootX(double x, XRect firstMonitor);
std::int32_t rootY(double y, XRect firstMonitor);

} // namespace X11Geometry

} // namespace tavrick

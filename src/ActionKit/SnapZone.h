#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/Models.h"
#include "CoreKit/RawValue.h"

#include <optional>
#include <span>
#include <string_view>

namespace tavrick {

// Where a window dragged to a screen edge or corner lands. There is no top half: the top edge
// maximises.
enum class SnapZone { leftHalf, rightHalf, maximize, bottomHalf, topLeft, topRight, bottomLeft, bottomRight };

std::string_view rawValue(SnapZone zone);
template <>
std::optional<SnapZone> fromRaw<SnapZone>(std::string_view raw);
template <>
std::span<const SnapZone> allCases<SnapZone>();

// The window command a zone runs.
WindowCommand command(SnapZone zone);

// Which zone a pointer is in, without any platform. Points and rectangles have the origin at the
// bottom-left, y upward.
namespace SnapZoneDetector {

struct Configuration {
    // A pointer this close to an edge (inside or beyond it) is at that edge.
    double edgeThreshold = 8.0;
    // Along an edge, this much at either end is a corner.
    double cornerLength = 130.0;
    bool operator==(const Configuration&) const = default;
};

// `visibleFrame` is the screen's visible frame; nothing when the pointer is in no zone of it.
std::optional<SnapZone> zone(Point pointer, const Rect& visibleFrame, const Configuration& configuration = {});

// The frame a window snapped to `zone` takes in `visibleFrame`.
std::optional<Rect> frame(SnapZone zone, const Rect& visibleFrame);

} // namespace SnapZoneDetector

} // namespace tavrick

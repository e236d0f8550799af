#include "ActionKit/SnapZone.h"

#include "ActionKit/WindowLayout.h"

#include <array>

namespace tavrick {

namespace {

constexpr std::array<SnapZone, 8> zones{SnapZone::leftHalf, SnapZone::rightHalf, SnapZone::maximize,
                                        SnapZone::bottomHalf, SnapZone::topLeft,  SnapZone::topRight,
                                        SnapZone::bottomLeft, SnapZone::bottomRight};

} // namespace

std::string_view rawValue(SnapZone zone) {
    switch (zone) {
    case SnapZone::leftHalf: return "leftHalf";
    case SnapZone::rightHalf: return "rightHalf";
    case SnapZone::maximize: return "maximize";
    case SnapZone::bottomHalf: return "bottomHalf";
    case SnapZone::topLeft: return "topLeft";
    case SnapZone::topRight: return "topRight";
    case SnapZone::bottomLeft: return "bottomLeft";
    case SnapZone::bottomRight: return "bottomRight";
    }
    return "leftHalf";
}

template <>
std::optional<SnapZone> fromRaw<SnapZone>(std::string_view raw) {
    for (auto zone : zones) {
        if (rawValue(zone) == raw) return zone;
    }
    return std::nullopt;
}

template <>
std::span<const SnapZone> allCases<SnapZone>() {
    return zones;
}

WindowCommand command(SnapZone zone) {
    switch (zone) {
    case SnapZone::leftHalf: return WindowCommand::leftHalf;
    case SnapZone::rightHalf: return WindowCommand::rightHalf;
    case SnapZone::maximize: return WindowCommand::maximize;
    case SnapZone::bottomHalf: return WindowCommand::bottomHalf;
    case SnapZone::topLeft: return WindowCommand::topLeftQuarter;
    case SnapZone::topRight: return WindowCommand::topRightQuarter;
    case SnapZone::bottomLeft: return WindowCommand::bottomLeftQuarter;
    case SnapZone::bottomRight: return WindowCommand::bottomRightQuarter;
    }
    return WindowCommand::maximize;
}

namespace SnapZoneDetector {

std::optional<SnapZone> zone(Point p, const Rect& r, const Configuration& configuration) {
    const double e = configuration.edgeThreshold;
    const double c = configuration.cornerLength;
    // The grown rectangle holds its edges: a pointer exactly e beyond an edge still counts.
    if (p.x < r.minX() - e || p.x > r.maxX() + e || p.y < r.minY() - e || p.y > r.maxY() + e) return std::nullopt;

    const bool nearLeft = p.x <= r.minX() + e;
    const bool nearRight = r.maxX() - e <= p.x;
    const bool nearTop = r.maxY() - e <= p.y;
    const bool nearBottom = p.y <= r.minY() + e;
    const bool topBand = r.maxY() - c <= p.y;
    const bool bottomBand = p.y <= r.minY() + c;
    const bool leftBand = p.x <= r.minX() + c;
    const bool rightBand = r.maxX() - c <= p.x;

    if (nearLeft && (topBand || bottomBand)) return topBand ? SnapZone::topLeft : SnapZone::bottomLeft;
    if (nearRight && (topBand || bottomBand)) return topBand ? SnapZone::topRight : SnapZone::bottomRight;
    if (nearTop && (leftBand || rightBand)) return leftBand ? SnapZone::topLeft : SnapZone::topRight;
    if (nearBottom && leftBand) return SnapZone::bottomLeft;
    if (nearBottom && rightBand) return SnapZone::bottomRight;
    if (nearLeft) return SnapZone::leftHalf;
    if (nearRight) return SnapZone::rightHalf;
    if (nearTop) return SnapZone::maximize;
    if (nearBottom) return SnapZone::bottomHalf;
    return std::nullopt;
}

std::optional<Rect> frame(SnapZone zone, const Rect& visibleFrame) {
    return WindowLayout::frame(command(zone), visibleFrame, Size{0, 0});
}

} // namespace SnapZoneDetector

} // namespace tavrick

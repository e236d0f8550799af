#include "ActionKit/SnapZone.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrick {
namespace {

// A laptop's visible frame: a 25-point menu bar above, a 70-point dock below.
const Rect visible{{0, 70}, {1440, 805}};  // x 0…1440, y 70…875

std::string spell(std::optional<SnapZone> zone) {
    return zone ? std::string(rawValue(*zone)) : "nil";
}

TEST(SnapZoneDetector, EdgesCornersAndTheirExactBoundaries) {
    struct Case {
        const char* what;
        Point p;
        const char* zone;
    };
    const double midY = 472.5, midX = 720;
    const Case cases[] = {
        {"left edge at the threshold", {8, midY}, "leftHalf"},
        {"one point past the threshold", {9, midY}, "nil"},
        {"left edge 130 from the top", {0, 875 - 130}, "topLeft"},
        {"left edge 131 from the top", {0, 875 - 131}, "leftHalf"},
        {"left edge 130 from the bottom", {0, 70 + 130}, "bottomLeft"},
        {"left edge 131 from the bottom", {0, 70 + 131}, "leftHalf"},
        {"top edge 130 from the left", {130, 875}, "topLeft"},
        {"top edge 131 from the left", {131, 875}, "maximize"},
        {"top edge mid width", {midX, 875}, "maximize"},
        {"top edge at the threshold", {midX, 867}, "maximize"},
        {"below the top threshold", {midX, 866}, "nil"},
        {"top edge 130 from the right", {1310, 875}, "topRight"},
        {"right edge at the threshold", {1432, midY}, "rightHalf"},
        {"right of mid, short of the threshold", {1431, midY}, "nil"},
        {"right edge 130 from the top", {1440, 745}, "topRight"},
        {"right edge 130 from the bottom", {1440, 200}, "bottomRight"},
        {"bottom edge mid width", {midX, 70}, "bottomHalf"},
        {"bottom edge at the threshold", {midX, 78}, "bottomHalf"},
        {"bottom edge 130 from the left", {130, 70}, "bottomLeft"},
        {"bottom edge 131 from the left", {131, 70}, "bottomHalf"},
        {"bottom edge 130 from the right", {1310, 70}, "bottomRight"},
        {"bottom edge 131 from the right", {1309, 70}, "bottomHalf"},
        {"8 beyond the left edge", {-8, midY}, "leftHalf"},
        {"9 beyond the left edge", {-9, midY}, "nil"},
        {"8 above the top", {midX, 883}, "maximize"},
        {"9 above the top", {midX, 884}, "nil"},
        {"8 below the bottom, in the corner band", {100, 62}, "bottomLeft"},
        {"9 beyond the right edge", {1449, midY}, "nil"},
        {"the middle", {midX, midY}, "nil"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(spell(SnapZoneDetector::zone(c.p, visible)), c.zone) << c.what;
    }
}

TEST(SnapZoneDetector, OnASmallScreenTheLeftAndTheTopWin) {
    // Narrower and shorter than twice the corner band: every edge point is in two bands.
    const Rect small{{0, 0}, {200, 200}};
    struct Case {
        Point p;
        const char* zone;
    } cases[] = {
        {{100, 200}, "topLeft"},   // top edge: left band over right band
        {{0, 100}, "topLeft"},     // left edge: top band over bottom band
        {{200, 100}, "topRight"},  // right edge: top band over bottom band
        {{100, 0}, "bottomLeft"},  // bottom edge: left band first
    };
    for (const auto& c : cases) EXPECT_EQ(spell(SnapZoneDetector::zone(c.p, small)), c.zone) << c.p.x << "," << c.p.y;
}

TEST(SnapZoneDetector, AnotherConfigurationMovesTheBoundaries) {
    const SnapZoneDetector::Configuration wide{.edgeThreshold = 20, .cornerLength = 50};
    EXPECT_EQ(spell(SnapZoneDetector::zone({20, 472.5}, visible, wide)), "leftHalf");
    EXPECT_EQ(spell(SnapZoneDetector::zone({21, 472.5}, visible, wide)), "nil");
    EXPECT_EQ(spell(SnapZoneDetector::zone({0, 825}, visible, wide)), "topLeft");
    EXPECT_EQ(spell(SnapZoneDetector::zone({0, 824}, visible, wide)), "leftHalf");
}

TEST(SnapZoneDetector, EachZoneLandsOnItsFrameOfTheVisibleArea) {
    // Worked by hand: halves and quarters of 1440 × 805 from (0, 70), y upward.
    const std::pair<SnapZone, Rect> cases[] = {
        {SnapZone::leftHalf, {{0, 70}, {720, 805}}},
        {SnapZone::rightHalf, {{720, 70}, {720, 805}}},
        {SnapZone::maximize, {{0, 70}, {1440, 805}}},
        {SnapZone::bottomHalf, {{0, 70}, {1440, 402.5}}},
        {SnapZone::topLeft, {{0, 472.5}, {720, 402.5}}},
        {SnapZone::topRight, {{720, 472.5}, {720, 402.5}}},
        {SnapZone::bottomLeft, {{0, 70}, {720, 402.5}}},
        {SnapZone::bottomRight, {{720, 70}, {720, 402.5}}},
    };
    for (const auto& [zone, expected] : cases) {
        EXPECT_EQ(SnapZoneDetector::frame(zone, visible), expected) << rawValue(zone);
    }
}

TEST(SnapZone, RawValuesGoBothWaysAndUnknownTextIsNothing) {
    for (auto zone : allCases<SnapZone>()) EXPECT_EQ(fromRaw<SnapZone>(rawValue(zone)), zone);
    EXPECT_EQ(allCases<SnapZone>().size(), 8u);
    EXPECT_EQ(fromRaw<SnapZone>("topHalf"), std::nullopt);
    EXPECT_EQ(fromRaw<SnapZone>("LeftHalf"), std::nullopt);
}

} // namespace
} // namespace tavrick

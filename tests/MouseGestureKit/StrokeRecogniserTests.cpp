#include "MouseGestureKit/StrokeRecogniser.h"
#include "MouseGestureKit/RecordingPad.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace tavrick;

namespace {

using D = GestureDirection;

// A path through the corners given, sampled every two points, as a mouse reports a drag.
std::vector<Point> path(std::vector<Point> corners) {
    std::vector<Point> points{corners.front()};
    for (std::size_t i = 1; i < corners.size(); ++i) {
        const Point a = corners[i - 1], b = corners[i];
        const double length = std::hypot(b.x - a.x, b.y - a.y);
        const int steps = std::max(1, static_cast<int>(length / 2));
        for (int s = 1; s <= steps; ++s) {
            const double t = static_cast<double>(s) / steps;
            points.push_back({a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t});
        }
    }
    return points;
}

} // namespace

TEST(StrokeRecogniser, ShapesAndTheirBoundaries) {
    struct Case {
        const char* name;
        std::vector<Point> points;
        std::vector<D> expected;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Case cases[] = {
        {"a click that did not move", {{100, 100}, {100, 100}}, {}},
        {"nothing at all", {}, {}},
        {"29 points in a line is too short", path({{0, 0}, {29, 0}}), {}},
        {"30 points passes the travel and the segment test", path({{0, 0}, {30, 0}}), {D::right}},
        {"y grows downwards", path({{0, 0}, {0, 40}}), {D::down}},
        {"up, then left", path({{0, 0}, {0, -60}, {-60, -60}}), {D::up, D::left}},
        {"left then right back to the start counts the farthest point", path({{0, 0}, {-40, 0}, {0, 0}}),
         {D::left, D::right}},
        {"45 degrees is diagonal and never anchors", path({{0, 0}, {80, 80}}), {}},
        {"three strokes is the most", path({{0, 0}, {60, 0}, {60, 60}, {0, 60}}), {D::right, D::down, D::left}},
        {"a fourth stroke rejects the whole path", path({{0, 0}, {60, 0}, {60, 60}, {0, 60}, {0, 0}}), {}},
        {"a long stroke in one direction is one stroke", path({{0, 0}, {300, 10}}), {D::right}},
        {"a point that is not a number is skipped", {{0, 0}, {nan, nan}, {40, 0}}, {D::right}},
    };
    StrokeRecogniser recogniser;
    for (const auto& c : cases) EXPECT_EQ(recogniser.strokes(c.points), c.expected) << c.name;
}

TEST(StrokeRecogniser, TravelIsTheFarthestReachFromTheStart) {
    EXPECT_EQ(StrokeRecogniser::travel({}), 0);
    const std::vector<Point> there{{0, 0}, {30, 40}, {3, 4}};
    EXPECT_EQ(StrokeRecogniser::travel(there), 50);
}

TEST(StrokeRecogniser, DirectionNeedsOneAxisToDominateByTheTolerance) {
    struct Case {
        double dx, dy, tolerance;
        std::optional<D> expected;
    };
    const Case cases[] = {
        {10, 4, 2, D::right}, {-10, 4, 2, D::left}, {4, 10, 2, D::down}, {4, -10, 2, D::up},
        {10, 5, 2, std::nullopt},  // exactly at the ratio: neither
        {0, 0, 2, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(StrokeRecogniser::direction(c.dx, c.dy, c.tolerance), c.expected) << c.dx << "," << c.dy;
}

TEST(RecordingPad, ItReadsRightButtonDragsAndSaysWhatItMakesOfThem) {
    RecordingPad pad;
    std::vector<std::vector<D>> told;
    pad.onRecorded = [&](const std::vector<D>& strokes) { told.push_back(strokes); };
    auto event = [](EventType type, double x, double y) { return Event::mouse(type, {x, y}, 1); };
    pad.handle(event(EventType::rightMouseUp, 0, 0));  // a release without a press is nobody's
    pad.handle(event(EventType::rightMouseDown, 10, 10));
    for (int x = 12; x <= 70; x += 2) pad.handle(event(EventType::rightMouseDragged, x, 10));
    pad.handle(event(EventType::rightMouseUp, 70, 10));
    pad.handle(event(EventType::rightMouseDown, 10, 10));
    pad.handle(event(EventType::rightMouseUp, 10, 10));
    EXPECT_EQ(told, (std::vector<std::vector<D>>{{D::right}, {}}));
    EXPECT_EQ(pad.heard(), told);
    EXPECT_EQ(RecordingPad::describe({D::up, D::left}), "[up, left]");
    EXPECT_EQ(RecordingPad::describe({}), "[]");
}

TEST(RecordingPad, AShapeInUseWithinTheSameScopeIsNamed) {
    const auto safari = GestureScope::app("com.apple.Safari", "Safari");
    Mapping back;
    back.id = UUID::random();
    back.name = "Back";
    back.trigger = Trigger::mouseGesture(MouseGestureSpec{{D::left}});
    back.scope = safari;
    Mapping everywhere = back;
    everywhere.id = UUID::random();
    everywhere.name = "";
    everywhere.action = ActionSpec::toggleAwake();
    everywhere.scope = std::nullopt;

    EXPECT_EQ(RecordingPad::verdict({}, safari, {back}), "Not recognised — draw it larger and straighter.");
    EXPECT_EQ(RecordingPad::verdict({D::left}, safari, {back, everywhere}), "Already used by “Back”");
    EXPECT_EQ(RecordingPad::verdict({D::left}, GestureScope::everywhere(), {back, everywhere}),
              "Already used by “Toggle Keep Awake”");
    EXPECT_EQ(RecordingPad::verdict({D::left}, GestureScope::app("org.mozilla.firefox", "Firefox"), {back, everywhere}),
              std::nullopt);
    EXPECT_EQ(RecordingPad::verdict({D::left}, safari, {back}, back.id), std::nullopt) << "its own binding is no conflict";
    EXPECT_EQ(RecordingPad::verdict({D::right}, safari, {back}), std::nullopt);
}

#include "GestureEngine/GestureRecognizer.h"

#include "TouchFixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

using namespace tavrick;
using tavrick::testing::fingers;
using tavrick::testing::hand;
using tavrick::testing::lifted;
using tavrick::testing::swipe;

namespace {

constexpr double pi = std::numbers::pi;

// Feeds frames and collects every gesture that comes out.
std::vector<GestureSpec> feed(GestureRecognizer& recognizer, const std::vector<TouchFrame>& frames) {
    std::vector<GestureSpec> out;
    for (const auto& frame : frames) {
        if (auto spec = recognizer.process(frame)) out.push_back(*spec);
    }
    return out;
}

// Three fingers held still long enough to be tracked from `t0`.
std::vector<TouchFrame> settledThree(double t0) {
    return {fingers(t0, 3), fingers(t0 + 0.05, 3)};
}

// One frame every hundredth of a second with these finger counts.
std::vector<TouchFrame> counts(std::vector<int> sequence) {
    std::vector<TouchFrame> frames;
    for (int count : sequence) frames.push_back(fingers(0.01 * static_cast<double>(frames.size()), count));
    return frames;
}

std::string stateOf(const GestureRecognizer& recognizer) {
    char text[128];
    if (const auto* s = recognizer.settling()) {
        std::snprintf(text, sizeof text, "settling %d from %.2f, %d frames", s->count, s->anchor.timestamp, s->frames);
    } else if (const auto* t = recognizer.tracking()) {
        std::snprintf(text, sizeof text, "tracking %d from %.2f at %.3f,%.3f dx %.3f, %d mismatched", t->fingerCount,
                      t->startTime, t->startX, t->startY, t->lastDX, t->mismatchFrames);
    } else {
        return recognizer.isLatched() ? "latched" : "idle";
    }
    return text;
}

} // namespace

TEST(GestureRecognizer, HowAContactSettlesTracksAndEnds) {
    const auto scroll = std::vector<TouchFrame>{fingers(0.00, 2), fingers(0.10, 2), fingers(0.20, 2)};
    auto then = [](std::vector<TouchFrame> frames, std::initializer_list<TouchFrame> more) {
        frames.insert(frames.end(), more);
        return frames;
    };
    struct Case {
        const char* name;
        std::vector<TouchFrame> frames;
        std::string state;
        std::optional<DeclineReason> decline = std::nullopt;
    };
    const Case cases[] = {
        {"a hand landing over three frames starts where the third finger arrived",
         {hand(0.00, {{0.2, 0.2}}), hand(0.01, {{0.2, 0.2}, {0.3, 0.2}}), hand(0.02, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}}),
          hand(0.03, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}}), hand(0.08, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}})},
         "tracking 3 from 0.02 at 0.300,0.300 dx 0.000, 0 mismatched"},
        {"one frame at two is a wobble", counts({3, 3, 2, 3}), "settling 3 from 0.00, 3 frames"},
        {"two frames at two re-anchor at the first of them", counts({3, 3, 2, 2}), "settling 2 from 0.02, 2 frames"},
        {"a change back before it is real clears the pending count", counts({3, 2, 3, 2}), "settling 3 from 0.00, 2 frames"},
        {"four fingers for a single frame do not raise the sustained peak",
         {fingers(0.00, 4), fingers(0.01, 3), fingers(0.02, 3), fingers(0.08, 3)},
         "tracking 3 from 0.01 at 0.500,0.500 dx 0.000, 0 mismatched"},
        {"a hand lifting from its sustained peak latches without a decline",
         {fingers(0.00, 4), fingers(0.01, 4), fingers(0.02, 4), fingers(0.03, 3), fingers(0.04, 3), fingers(0.10, 3),
          fingers(0.30, 3)},
         "latched"},
        {"one lost frame while tracking neither ends nor moves the gesture",
         then(settledThree(0), {fingers(0.06, 2, 0.1, 0.9)}), "tracking 3 from 0.00 at 0.500,0.500 dx 0.000, 1 mismatched"},
        {"back at the count, the mismatches start again",
         then(settledThree(0), {fingers(0.06, 2, 0.1, 0.9), fingers(0.07, 3)}),
         "tracking 3 from 0.00 at 0.500,0.500 dx 0.000, 0 mismatched"},
        {"an empty frame ends a contact at once, even mid-wobble",
         then(settledThree(0), {fingers(0.06, 2), lifted(0.4)}), "idle"},
        {"two fingers past the timeout settle as a scroll that a third finger cannot change",
         then(scroll, {fingers(0.21, 3), fingers(0.22, 3), fingers(0.40, 3, 0.1), fingers(0.41, 3, 0.1)}), "latched",
         DeclineReason::settledAsScroll(2)},
        {"the next contact clears the old reason", then(scroll, {lifted(0.42), fingers(0.50, 3)}),
         "settling 3 from 0.50, 1 frames"},
        {"a gap of exactly the stale limit keeps the contact", {fingers(0, 2), fingers(1.0, 2)}, "latched",
         DeclineReason::settledAsScroll(2)},
        {"a longer gap starts a new contact on that frame", {fingers(0, 2), fingers(1.0625, 2)},
         "settling 2 from 1.06, 1 frames"},
        {"a frame earlier than the last starts a new contact", {fingers(0, 2), fingers(-0.5, 2)},
         "settling 2 from -0.50, 1 frames"},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer;
        EXPECT_TRUE(feed(recognizer, c.frames).empty()) << c.name;
        EXPECT_EQ(stateOf(recognizer), c.state) << c.name;
        EXPECT_EQ(recognizer.lastDecline(), c.decline) << c.name;
    }

    GestureRecognizer recognizer;
    recognizer.process(fingers(0.08, 3));
    recognizer.reset();
    EXPECT_TRUE(recognizer.isIdle());
    EXPECT_FALSE(recognizer.lastFrameTime);
}

TEST(GestureRecognizer, TapLimitsAreInclusive) {
    // Binary fractions, so that "exactly on the limit" is exact.
    GestureConfig exact;
    exact.tapMaxDuration = 0.25;
    exact.tapMaxMovement = 0.03125;
    struct Case {
        GestureConfig config;
        double liftAt;    // seconds after tracking started
        double movement;  // centroid excursion
        bool tap;
    };
    const Case cases[] = {
        {exact, 0.125, 0.03125, true}, {exact, 0.25, 0.0, true},  {exact, 0.125, 0.0625, false},
        {exact, 0.375, 0.0, false},    {{}, 0.2, 0.02, true},     {{}, 0.2, 0.03, false},
        {{}, 0.3, 0.02, false},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer(c.config);
        // Tracking starts at 0 once the delay has passed at 0.0625.
        recognizer.process(fingers(0, 3));
        recognizer.process(fingers(0.0625, 3));
        recognizer.process(fingers(0.09375, 3, 0.5 + c.movement));
        recognizer.process(fingers(0.109375, 3));
        const auto result = recognizer.process(lifted(c.liftAt));
        EXPECT_EQ(result, c.tap ? std::optional(GestureSpec{3, GestureKind::tap, std::nullopt}) : std::nullopt)
            << c.liftAt << " s, moved " << c.movement;
        EXPECT_TRUE(recognizer.isIdle());
    }
    GestureRecognizer early;
    EXPECT_TRUE(feed(early, {fingers(0, 3), fingers(0.02, 3), lifted(0.03)}).empty()) << "lifted before the settle delay";
}

TEST(GestureRecognizer, SwipeThresholdsPassExactlyOnTheLimit) {
    GestureConfig config;
    config.minSwipeDistance = 0.125;
    config.minSwipeVelocity = 0.5;
    struct Case {
        const char* name;
        double dx, dy, at;
        std::optional<GestureSpec> expected;
        std::optional<DeclineReason> decline;
    };
    const Case cases[] = {
        {"distance and velocity exactly at the limits", -0.125, 0, 0.25, swipe(3, GestureDirection::left), std::nullopt},
        {"up is positive y", 0, 0.25, 0.25, swipe(3, GestureDirection::up), std::nullopt},
        {"too short", 0.0625, 0, 0.25, std::nullopt, DeclineReason::tooShort(0.0625)},
        {"too slow", 0.125, 0, 0.5, std::nullopt, DeclineReason::tooSlow(0.25)},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer(config);
        recognizer.process(fingers(0, 3));
        recognizer.process(fingers(0.0625, 3));
        auto result = recognizer.process(fingers(c.at, 3, 0.5 + c.dx, 0.5 + c.dy));
        EXPECT_EQ(result, c.expected) << c.name;
        EXPECT_EQ(recognizer.lastDecline(), c.decline) << c.name;
        EXPECT_EQ(recognizer.isLatched(), c.expected.has_value()) << c.name;
    }
}

TEST(GestureRecognizer, DirectionSectorsAndTheirBoundaries) {
    const double t = pi / 6;
    struct Case {
        double dx, dy, tolerance;
        std::optional<GestureDirection> expected;
    };
    const Case cases[] = {
        {1, 0, t, GestureDirection::right},
        {-1, 0, t, GestureDirection::left},
        {0, 1, t, GestureDirection::up},
        {0, -1, t, GestureDirection::down},
        {1, 1, t, std::nullopt},      // 45°, in the undecided band
        {1, 1, pi / 4, GestureDirection::right},  // exactly at the tolerance: the first test wins
        {-1, 1, pi / 4, GestureDirection::up},
        {std::cos(t * 0.99), std::sin(t * 0.99), t, GestureDirection::right},
        {std::cos(t * 1.01), std::sin(t * 1.01), t, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(GestureRecognizer::direction(c.dx, c.dy, c.tolerance), c.expected) << c.dx << "," << c.dy;
    }
}

TEST(GestureRecognizer, NormalizeAngleKeepsPiAndFoldsTheRest) {
    struct Case {
        double in, out;
    };
    const Case cases[] = {{pi, pi}, {-pi, -pi}, {3 * pi, pi}, {-3 * pi, -pi}, {pi + 0.5, -pi + 0.5}, {-pi - 0.5, pi - 0.5}};
    for (const auto& c : cases) EXPECT_NEAR(GestureRecognizer::normalizeAngle(c.in), c.out, 1e-12) << c.in;
    EXPECT_EQ(GestureRecognizer::normalizeAngle(pi), pi);
}

TEST(GestureRecognizer, A45DegreeMoveIsTooDiagonalAndAPinchIsStillTriedOnThatFrame) {
    const std::vector<std::pair<double, double>> start{{0.45, 0.5}, {0.5, 0.5}, {0.55, 0.5}};
    GestureRecognizer recognizer, pinching;
    for (auto* r : {&recognizer, &pinching}) feed(*r, {hand(0, start), hand(0.05, start)});
    // Same spread, moved 0.2 up and right: diagonal.
    EXPECT_FALSE(recognizer.process(hand(0.1, {{0.65, 0.7}, {0.7, 0.7}, {0.75, 0.7}})));
    const auto* diagonal = std::get_if<DeclineReason::TooDiagonal>(&recognizer.lastDecline().value().value);
    ASSERT_NE(diagonal, nullptr);
    EXPECT_NEAR(diagonal->degrees, 45, 1e-9);

    // The same diagonal move with the fingers spreading apart is a pinch, found on that frame.
    EXPECT_EQ(pinching.process(hand(0.1, {{0.55, 0.7}, {0.7, 0.7}, {0.85, 0.7}})),
              (GestureSpec{3, GestureKind::pinch, GestureDirection::expand}));
    EXPECT_TRUE(std::holds_alternative<DeclineReason::TooDiagonal>(pinching.lastDecline()->value))
        << "a recognised pinch leaves the decline as it stood";
}

TEST(GestureRecognizer, RotationNeedsEveryFingerToAgreeWithTheMean) {
    // Two fingers turn a quarter about their midpoint while the third stays put: the centroid
    // does not move, so the still finger's delta is exactly 0.
    struct Case {
        const char* name;
        double mirror;  // 1 for the turn with y up, -1 for its mirror image
        std::optional<GestureSpec> expected;
    };
    const Case cases[] = {
        {"a positive mean accepts a finger that did not move", 1,
         GestureSpec{3, GestureKind::rotate, GestureDirection::expand}},
        {"a negative mean refuses a finger that did not move", -1, std::nullopt},
    };
    for (const auto& c : cases) {
        auto x = [&](double value) { return c.mirror > 0 ? value : 1.0 - value; };
        const std::vector<std::pair<double, double>> start{{x(0.375), 0.5}, {x(0.625), 0.5}, {x(0.75), 0.25}};
        const std::vector<std::pair<double, double>> turned{{x(0.5), 0.375}, {x(0.5), 0.625}, {x(0.75), 0.25}};
        GestureRecognizer recognizer;
        feed(recognizer, {hand(0, start), hand(0.05, start)});
        ASSERT_NE(recognizer.tracking(), nullptr) << c.name;
        EXPECT_EQ(recognizer.process(hand(0.1, turned)), c.expected) << c.name;
    }
}

TEST(GestureRecognizer, TouchesThatAreNotTouchingCountForNothing) {
    auto ghostly = [](TouchFrame frame) {
        frame.touches.push_back(Touch{9, 0.0, 0.0, 0.0, false});
        return frame;
    };
    EXPECT_EQ(ghostly(fingers(0, 3)).spread(), fingers(0, 3).spread());
    GestureRecognizer recognizer;
    feed(recognizer, {ghostly(fingers(0, 3)), ghostly(fingers(0.05, 3))});
    EXPECT_EQ(stateOf(recognizer), "tracking 3 from 0.00 at 0.500,0.500 dx 0.000, 0 mismatched");
    EXPECT_FALSE(recognizer.tracking()->startAngles.contains(9));
}

TEST(GestureRecognizer, ASwipeThatLosesAFingerFiresOnTheMovementBeforeTheChange) {
    struct Case {
        const char* name;
        double moved;
        std::optional<GestureSpec> expected;
        std::optional<DeclineReason> decline;
    };
    const Case cases[] = {
        {"fast enough before the change", -0.0625, swipe(3, GestureDirection::left), std::nullopt},
        {"too little before the change", -0.03125, std::nullopt, DeclineReason::countChanged(3, 2)},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer;
        recognizer.config.minSwipeDistance = 1.0;  // no swipe while the hand is whole
        feed(recognizer, {fingers(0, 3), fingers(0.0625, 3), fingers(0.09375, 3, 0.5 + c.moved)});
        recognizer.config.minSwipeDistance = 0.0625;
        EXPECT_FALSE(recognizer.process(fingers(0.1, 2)));
        EXPECT_EQ(recognizer.process(fingers(0.11, 2)), c.expected) << c.name;
        EXPECT_EQ(recognizer.lastDecline(), c.decline) << c.name;
        EXPECT_TRUE(recognizer.isLatched()) << c.name;
    }
}

TEST(GestureRecognizer, DeclineSummariesReadAsTheLogShowsThem) {
    const std::pair<DeclineReason, std::string> cases[] = {
        {DeclineReason::settledAsScroll(2),
         "already reading a 2-finger scroll when the hand changed — lift off the pad and start the swipe again"},
        {DeclineReason::tooDiagonal(37.9), "too diagonal to call — 37° off the nearest axis, and 30° is the limit"},
        {DeclineReason::tooShort(0.0414), "too short — 0.041 of the pad"},
        {DeclineReason::tooSlow(0.125), "too slow — 0.12 of the pad per second"},
        {DeclineReason::countChanged(4, 2), "the hand went from 4 fingers to 2 mid-swipe"},
        {DeclineReason::handLifting(4, 3), "the hand was lifting — 4 fingers down to 3"},
        {DeclineReason::tooDiagonal(std::numeric_limits<double>::quiet_NaN()),
         "too diagonal to call — nan° off the nearest axis, and 30° is the limit"},
    };
    for (const auto& [reason, text] : cases) EXPECT_EQ(reason.summary(), text);
}

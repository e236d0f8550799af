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
std::vector<TouchFrame> settledThree(double t0, double x = 0.5, double y = 0.5) {
    return {fingers(t0, 3, x, y), fingers(t0 + 0.05, 3, x, y)};
}

} // namespace

TEST(GestureRecognizer, AHandLandingOverThreeFramesStartsWhereTheThirdFingerArrived) {
    GestureRecognizer recognizer;
    feed(recognizer, {
                         hand(0.00, {{0.2, 0.2}}),
                         hand(0.01, {{0.2, 0.2}, {0.3, 0.2}}),
                         hand(0.02, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}}),
                         hand(0.03, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}}),
                         hand(0.08, {{0.2, 0.2}, {0.3, 0.2}, {0.4, 0.5}}),
                     });
    const auto* tracking = recognizer.tracking();
    ASSERT_NE(tracking, nullptr);
    EXPECT_EQ(tracking->fingerCount, 3);
    EXPECT_DOUBLE_EQ(tracking->startTime, 0.02);
    EXPECT_DOUBLE_EQ(tracking->startX, 0.3);
    EXPECT_DOUBLE_EQ(tracking->startY, 0.3);
}

TEST(GestureRecognizer, ACountSeenForOneFrameIsAWobbleAndForTwoItReanchors) {
    struct Case {
        const char* name;
        std::vector<int> counts;
        int expectedCount;
        double expectedAnchor;
    };
    const Case cases[] = {
        {"one frame at two keeps three", {3, 3, 2, 3}, 3, 0.00},
        {"two frames at two re-anchor at the first of them", {3, 3, 2, 2}, 2, 0.02},
        {"a change back before it is real clears the pending count", {3, 2, 3, 2}, 3, 0.00},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer;
        double t = 0;
        for (int count : c.counts) {
            recognizer.process(fingers(t, count));
            t += 0.01;
        }
        const auto* settling = recognizer.settling();
        ASSERT_NE(settling, nullptr) << c.name;
        EXPECT_EQ(settling->count, c.expectedCount) << c.name;
        EXPECT_DOUBLE_EQ(settling->anchor.timestamp, c.expectedAnchor) << c.name;
    }
}

TEST(GestureRecognizer, OneLostFrameWhileTrackingNeitherEndsNorMovesTheGesture) {
    GestureRecognizer recognizer;
    feed(recognizer, settledThree(0));
    const auto before = *recognizer.tracking();
    EXPECT_FALSE(recognizer.process(fingers(0.06, 2, 0.1, 0.9)));
    const auto* after = recognizer.tracking();
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(after->mismatchFrames, 1);
    EXPECT_EQ(after->lastDX, before.lastDX);
    EXPECT_EQ(after->maxMovement, before.maxMovement);
    // Back at three, the count of mismatches starts again.
    recognizer.process(fingers(0.07, 3));
    EXPECT_EQ(recognizer.tracking()->mismatchFrames, 0);
}

TEST(GestureRecognizer, AHandLiftingFromItsSustainedPeakLatchesWithoutADecline) {
    GestureRecognizer recognizer;
    feed(recognizer, {fingers(0.00, 4), fingers(0.01, 4), fingers(0.02, 4), fingers(0.03, 3), fingers(0.04, 3),
                      fingers(0.10, 3), fingers(0.30, 3)});
    EXPECT_TRUE(recognizer.isLatched());
    EXPECT_FALSE(recognizer.lastDecline());
}

TEST(GestureRecognizer, FourFingersForASingleFrameDoNotRaiseTheSustainedPeak) {
    GestureRecognizer recognizer;
    // 3, then one frame of 4 that is a wobble, then 4 again would be real; instead: 4 once on
    // landing, then 3 for good.
    feed(recognizer, {fingers(0.00, 4), fingers(0.01, 3), fingers(0.02, 3), fingers(0.08, 3)});
    EXPECT_NE(recognizer.tracking(), nullptr) << "the hand of three is tracked";
}

TEST(GestureRecognizer, TwoFingersPastTheTimeoutSettleAsAScrollThatAThirdFingerCannotChange) {
    GestureRecognizer recognizer;
    feed(recognizer, {fingers(0.00, 2), fingers(0.10, 2), fingers(0.20, 2)});
    EXPECT_TRUE(recognizer.isLatched());
    EXPECT_EQ(recognizer.lastDecline(), DeclineReason::settledAsScroll(2));
    EXPECT_TRUE(feed(recognizer, {fingers(0.21, 3), fingers(0.22, 3), fingers(0.40, 3, 0.1), fingers(0.41, 3, 0.1)})
                    .empty());
    EXPECT_TRUE(recognizer.isLatched());
    recognizer.process(lifted(0.42));
    EXPECT_TRUE(recognizer.isIdle());
    // A new contact clears the old reason.
    recognizer.process(fingers(0.50, 3));
    EXPECT_FALSE(recognizer.lastDecline());
}

TEST(GestureRecognizer, TapLimitsAreInclusive) {
    // Binary fractions, so that "exactly on the limit" is exact.
    GestureConfig config;
    config.tapMaxDuration = 0.25;
    config.tapMaxMovement = 0.03125;
    struct Case {
        const char* name;
        double liftAt;     // seconds after tracking started
        double movement;   // centroid excursion
        bool tap;
    };
    const Case cases[] = {
        {"short and still", 0.125, 0.015625, true},
        {"movement exactly at the limit", 0.125, 0.03125, true},
        {"duration exactly at the limit", 0.25, 0.0, true},
        {"moved too far", 0.125, 0.0625, false},
        {"held too long", 0.375, 0.0, false},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer(config);
        // Tracking starts at 0 once the delay has passed at 0.0625.
        recognizer.process(fingers(0, 3));
        recognizer.process(fingers(0.0625, 3));
        ASSERT_NE(recognizer.tracking(), nullptr) << c.name;
        recognizer.process(fingers(0.09375, 3, 0.5 + c.movement));
        recognizer.process(fingers(0.109375, 3));
        auto result = recognizer.process(lifted(c.liftAt));
        if (c.tap) {
            ASSERT_TRUE(result) << c.name;
            EXPECT_EQ(*result, (GestureSpec{3, GestureKind::tap, std::nullopt})) << c.name;
        } else {
            EXPECT_FALSE(result) << c.name;
        }
        EXPECT_TRUE(recognizer.isIdle()) << c.name;
    }
}

TEST(GestureRecognizer, TapsWithTheDefaultLimits) {
    struct Case {
        double liftAt, movement;
        bool tap;
    };
    const Case cases[] = {{0.2, 0.02, true}, {0.2, 0.03, false}, {0.3, 0.02, false}};
    for (const auto& c : cases) {
        GestureRecognizer recognizer;
        recognizer.process(fingers(0, 3));
        recognizer.process(fingers(0.05, 3));
        recognizer.process(fingers(0.1, 3, 0.5 + c.movement));
        EXPECT_EQ(recognizer.process(lifted(c.liftAt)).has_value(), c.tap) << c.liftAt << " s, moved " << c.movement;
    }
}

TEST(GestureRecognizer, FingersThatLiftBeforeTheSettleDelayMakeNoTap) {
    GestureRecognizer recognizer;
    EXPECT_TRUE(feed(recognizer, {fingers(0, 3), fingers(0.02, 3), lifted(0.03)}).empty());
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
        {"down", 0, -0.25, 0.25, swipe(3, GestureDirection::down), std::nullopt},
        {"right", 0.25, 0, 0.25, swipe(3, GestureDirection::right), std::nullopt},
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
        {-1, -1, t, std::nullopt},
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
    const Case cases[] = {{pi, pi}, {-pi, -pi}, {3 * pi, pi}, {-3 * pi, -pi}, {pi + 0.5, -pi + 0.5}, {-pi - 0.5, pi - 0.5},
                          {0.25, 0.25}};
    for (const auto& c : cases) EXPECT_NEAR(GestureRecognizer::normalizeAngle(c.in), c.out, 1e-12) << c.in;
    EXPECT_EQ(GestureRecognizer::normalizeAngle(pi), pi);
}

TEST(GestureRecognizer, A45DegreeMoveIsTooDiagonalAndAPinchIsStillTriedOnThatFrame) {
    GestureRecognizer recognizer;
    const std::vector<std::pair<double, double>> start{{0.45, 0.5}, {0.5, 0.5}, {0.55, 0.5}};
    recognizer.process(hand(0, start));
    recognizer.process(hand(0.05, start));
    ASSERT_NE(recognizer.tracking(), nullptr);
    // Same spread, moved 0.2 up and right: diagonal.
    EXPECT_FALSE(recognizer.process(hand(0.1, {{0.65, 0.7}, {0.7, 0.7}, {0.75, 0.7}})));
    ASSERT_TRUE(recognizer.lastDecline());
    const auto* diagonal = std::get_if<DeclineReason::TooDiagonal>(&recognizer.lastDecline()->value);
    ASSERT_NE(diagonal, nullptr);
    EXPECT_NEAR(diagonal->degrees, 45, 1e-9);
    EXPECT_EQ(DeclineReason::tooDiagonal(45).summary(), "too diagonal to call — 45° off the nearest axis, and 30° is the limit");

    // The same diagonal move with the fingers spreading apart is a pinch, found on that frame.
    GestureRecognizer pinching;
    pinching.process(hand(0, start));
    pinching.process(hand(0.05, start));
    auto result = pinching.process(hand(0.1, {{0.55, 0.7}, {0.7, 0.7}, {0.85, 0.7}}));
    EXPECT_EQ(result, (GestureSpec{3, GestureKind::pinch, GestureDirection::expand}));
    EXPECT_TRUE(std::holds_alternative<DeclineReason::TooDiagonal>(pinching.lastDecline()->value))
        << "a recognised pinch leaves the decline as it stood";
}

TEST(GestureRecognizer, StaleAndBackwardFramesStartANewContact) {
    struct Case {
        const char* name;
        double secondFrame;
        bool reset;
    };
    const Case cases[] = {
        {"a gap of exactly the limit does not reset", 1.0, false},
        {"a longer gap resets", 1.0625, true},
        {"a frame earlier than the last resets", -0.5, true},
    };
    for (const auto& c : cases) {
        GestureRecognizer recognizer;
        recognizer.process(fingers(0, 2));
        recognizer.process(fingers(c.secondFrame, 2));
        const auto* settling = recognizer.settling();
        if (c.reset) {
            // The frame that reset is itself the first frame of the new contact.
            ASSERT_NE(settling, nullptr) << c.name;
            EXPECT_EQ(settling->firstTouch, c.secondFrame) << c.name;
            EXPECT_EQ(settling->frames, 1) << c.name;
        } else {
            EXPECT_TRUE(recognizer.isLatched()) << c.name << ": two fingers past the timeout";
        }
        EXPECT_EQ(recognizer.lastFrameTime, c.secondFrame) << c.name;
    }
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
        recognizer.process(hand(0, start));
        recognizer.process(hand(0.05, start));
        ASSERT_NE(recognizer.tracking(), nullptr) << c.name;
        EXPECT_EQ(recognizer.process(hand(0.1, turned)), c.expected) << c.name;
    }
}

TEST(GestureRecognizer, TouchesThatAreNotTouchingCountForNothing) {
    GestureRecognizer recognizer;
    auto withGhost = [](TouchFrame frame) {
        frame.touches.push_back(Touch{9, 0.0, 0.0, 0.0, false});
        return frame;
    };
    recognizer.process(withGhost(fingers(0, 3)));
    recognizer.process(withGhost(fingers(0.05, 3)));
    const auto* tracking = recognizer.tracking();
    ASSERT_NE(tracking, nullptr);
    EXPECT_EQ(tracking->fingerCount, 3);
    EXPECT_DOUBLE_EQ(tracking->startX, 0.5);
    EXPECT_FALSE(tracking->startAngles.contains(9));
    EXPECT_EQ(withGhost(fingers(0, 3)).spread(), fingers(0, 3).spread());
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
        GestureConfig config;
        config.minSwipeDistance = 0.0625;
        GestureRecognizer recognizer(config);
        recognizer.process(fingers(0, 3));
        recognizer.process(fingers(0.0625, 3));
        // Short of a swipe on the frame itself: the distance is tested against a higher bar.
        config.minSwipeDistance = 0.0625;
        auto midway = fingers(0.09375, 3, 0.5 + c.moved);
        recognizer.config.minSwipeDistance = 1.0;  // no swipe while the hand is whole
        recognizer.process(midway);
        recognizer.config.minSwipeDistance = 0.0625;
        EXPECT_FALSE(recognizer.process(fingers(0.1, 2)));
        auto result = recognizer.process(fingers(0.11, 2));
        EXPECT_EQ(result, c.expected) << c.name;
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

TEST(GestureRecognizer, AnEmptyFrameEndsTheContactAtOnceWhateverTheState) {
    GestureRecognizer recognizer;
    feed(recognizer, settledThree(0));
    recognizer.process(fingers(0.06, 2));  // a wobble
    recognizer.process(lifted(0.07));
    EXPECT_TRUE(recognizer.isIdle());
    recognizer.process(fingers(0.08, 3));
    recognizer.reset();
    EXPECT_TRUE(recognizer.isIdle());
    EXPECT_FALSE(recognizer.lastFrameTime);
}

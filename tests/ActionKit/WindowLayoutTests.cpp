#include "ActionKit/ScreenSnapshot.h"
#include "ActionKit/WindowLayout.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tavrick;

namespace {
Rect rect(double x, double y, double w, double h) {
    return Rect{{x, y}, {w, h}};
}
} // namespace

TEST(WindowLayout, EveryCommandOnAnOffsetScreenIsExact) {
    // Offset and odd sizes, so that a swapped min/max or a lost origin shows.
    const Rect v = rect(100, 40, 1200, 810);
    const Size window{500, 300};
    const double third = 1200 / 3.0;
    struct Case {
        WindowCommand command;
        Rect expected;
    };
    const Case cases[] = {
        {WindowCommand::leftHalf, rect(100, 40, 600, 810)},
        {WindowCommand::rightHalf, rect(700, 40, 600, 810)},
        {WindowCommand::topHalf, rect(100, 445, 1200, 405)},
        {WindowCommand::bottomHalf, rect(100, 40, 1200, 405)},
        {WindowCommand::leftThird, rect(100, 40, third, 810)},
        {WindowCommand::centerThird, rect(100 + third, 40, third, 810)},
        {WindowCommand::rightThird, rect(1300 - third, 40, third, 810)},
        {WindowCommand::leftTwoThirds, rect(100, 40, third + third, 810)},
        {WindowCommand::rightTwoThirds, rect(1300 - (third + third), 40, third + third, 810)},
        {WindowCommand::topLeftQuarter, rect(100, 445, 600, 405)},
        {WindowCommand::topRightQuarter, rect(700, 445, 600, 405)},
        {WindowCommand::bottomLeftQuarter, rect(100, 40, 600, 405)},
        {WindowCommand::bottomRightQuarter, rect(700, 40, 600, 405)},
        {WindowCommand::maximize, v},
        {WindowCommand::center, rect(450, 295, 500, 300)},
    };
    for (const auto& c : cases) {
        auto frame = WindowLayout::frame(c.command, v, window);
        ASSERT_TRUE(frame.has_value()) << rawValue(c.command);
        EXPECT_EQ(*frame, c.expected) << rawValue(c.command);
    }
    for (auto command : {WindowCommand::nextDisplay, WindowCommand::previousDisplay, WindowCommand::restore}) {
        EXPECT_EQ(WindowLayout::frame(command, v, window), std::nullopt) << rawValue(command);
    }
}

TEST(WindowLayout, ThirdsAreNotRoundedAndTwoThirdsIsThirdPlusThird) {
    // Two thirds is third + third: at width 5 that is 3.3333333333333335, where multiplying by a
    // rounded two thirds gives 3.333333333333333, and the window would be an ulp narrower than
    // the two one-third windows beside it.
    const double width = 5;
    ASSERT_NE(width / 3.0 + width / 3.0, width * (2.0 / 3.0));
    auto left = WindowLayout::frame(WindowCommand::leftTwoThirds, rect(0, 0, width, 500), {10, 10});
    auto rightTwo = WindowLayout::frame(WindowCommand::rightTwoThirds, rect(0, 0, width, 500), {10, 10});
    ASSERT_TRUE(left && rightTwo);
    EXPECT_EQ(left->size.width, 3.3333333333333335);
    EXPECT_EQ(rightTwo->size.width, 3.3333333333333335);
    EXPECT_EQ(rightTwo->minX(), width - 3.3333333333333335);
}

TEST(WindowLayout, CenterCapsTheWindowAtTheVisibleFrame) {
    const Rect v = rect(0, 70, 1440, 805);
    EXPECT_EQ(WindowLayout::frame(WindowCommand::center, v, {3000, 2000}), v);
    // Only the dimension that is too large is capped.
    EXPECT_EQ(WindowLayout::frame(WindowCommand::center, v, {400, 2000}), rect(520, 70, 400, 805));
}

TEST(WindowLayout, TheFlipIsItsOwnInverseAndKeepsXAndSize) {
    const Rect ax = rect(200, 120, 800, 600);
    const Rect cocoa = WindowLayout::cocoaFrame(ax, 900);
    EXPECT_EQ(cocoa, rect(200, 180, 800, 600));
    EXPECT_EQ(WindowLayout::accessibilityFrame(cocoa, 900), ax);
    // A window on a screen above the first one has a negative accessibility y.
    EXPECT_EQ(WindowLayout::accessibilityFrame(rect(0, 1000, 100, 100), 900), rect(0, -200, 100, 100));
}

TEST(WindowLayout, ScreenContainingPicksTheLargestOverlapAndTiesGoEarlier) {
    const std::vector<Rect> screens = {rect(0, 0, 1000, 800), rect(1000, 0, 1000, 800)};
    struct Case {
        const char* what;
        Rect window;
        std::optional<std::size_t> expected;
    };
    const Case cases[] = {
        {"wholly on the first", rect(10, 10, 100, 100), 0},
        {"mostly on the second", rect(900, 10, 300, 100), 1},
        {"straddling equally", rect(900, 10, 200, 100), 0},
        {"touching an edge only", rect(2000, 0, 100, 100), std::nullopt},
        {"off every screen", rect(-500, -500, 100, 100), std::nullopt},
        {"zero-sized window", rect(10, 10, 0, 0), std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(WindowLayout::screen(c.window, screens), c.expected) << c.what;
    EXPECT_EQ(WindowLayout::screen(rect(0, 0, 10, 10), std::vector<Rect>{}), std::nullopt);
    // A zero-sized screen overlaps nothing.
    EXPECT_EQ(WindowLayout::screen(rect(0, 0, 10, 10), std::vector<Rect>{rect(0, 0, 0, 0), rect(0, 0, 5, 5)}), 1u);
}

TEST(WindowLayout, TheSnapshotKeepsVisibleFramesInOrderAndTheFirstScreensFullHeight) {
    // The taller second screen must not set the height the flips turn around.
    const std::vector<ScreenInfo> screens = {{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)},
                                             {rect(1440, 0, 2560, 1440), rect(1440, 0, 2560, 1415)}};
    const auto snapshot = ScreenSnapshot::of(screens);
    EXPECT_EQ(snapshot.primaryHeight, 900);
    EXPECT_EQ(snapshot.visibleFrames, (std::vector<Rect>{rect(0, 70, 1440, 805), rect(1440, 0, 2560, 1415)}));
    EXPECT_EQ(ScreenSnapshot::of({}).primaryHeight, 0);
}

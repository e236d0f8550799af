#include "ActionFixture.h"

#include "ActionKit/WindowLayout.h"

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class WindowManagerTest : public ActionFixture {
protected:
    void apply(WindowCommand command) {
        windows->apply(command, editor, ScreenSnapshot::current(desktop));
        scheduler.runUntilIdle();
    }
    std::vector<std::string> windowLines() const { return logs.messages("windows"); }
};

} // namespace

TEST_F(WindowManagerTest, LeftHalfWritesSizePositionSizeInAccessibilityCoordinates) {
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
    // y 25 from the top: the menu bar's 25 points on a 900-point display.
    EXPECT_EQ(desktop.accessibilityWrites(),
              (std::vector<std::string>{"501 size 720 805", "501 position 0 25", "501 size 720 805"}));
    EXPECT_EQ(desktop.messagingTimeouts(), std::vector<double>{0.5});
    EXPECT_EQ(windowLines(), std::vector<std::string>{"Left Half: window of pid 501 to x 0, y 70, width 720, height 805"});
}

TEST_F(WindowManagerTest, RestoreGoesBackOnceAndIsNotItselfRemembered) {
    const Rect before = editorFrame();
    apply(WindowCommand::leftHalf);
    apply(WindowCommand::restore);
    EXPECT_EQ(editorFrame(), before);
    desktop.clearRecords();
    apply(WindowCommand::restore);
    EXPECT_EQ(editorFrame(), before);
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    EXPECT_EQ(windowLines().back(), "Nothing to restore for pid 501");

    // Only the frame before the most recent move is kept.
    apply(WindowCommand::leftHalf);
    apply(WindowCommand::rightHalf);
    apply(WindowCommand::restore);
    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
}

TEST_F(WindowManagerTest, RestoreFramesAreKeptPerProcess) {
    const auto other = desktop.addApplication({.pid = 502, .bundleID = "org.gnome.Terminal", .name = "Terminal"});
    const auto otherWindow = desktop.addWindow(other, "Shell", rect(1600, 200, 960, 600));
    apply(WindowCommand::leftHalf);
    windows->apply(WindowCommand::maximize, other, ScreenSnapshot::current(desktop));
    windows->apply(WindowCommand::restore, other, ScreenSnapshot::current(desktop));
    scheduler.runUntilIdle();
    EXPECT_EQ(desktop.windowFrame(otherWindow), rect(1600, 200, 960, 600));
    apply(WindowCommand::restore);
    EXPECT_EQ(editorFrame(), rect(200, 180, 800, 600));
}

TEST_F(WindowManagerTest, NextDisplayKeepsTheRelativePlaceAndCapsTheSize) {
    // From the 2560-wide display to the 1440-wide one, by way of previous (wrapping) and next.
    const Rect onLarge = rect(1440 + 640, 283, 2000, 1200);
    const Rect ax = WindowLayout::accessibilityFrame(onLarge, 900);
    desktop.application(editor)->focusedWindow()->setSize(ax.size);
    desktop.application(editor)->focusedWindow()->setPosition(ax.origin);
    ASSERT_EQ(editorFrame(), onLarge);
    for (auto command : {WindowCommand::nextDisplay, WindowCommand::previousDisplay}) {
        apply(command);
        // Not clamped: it overhangs the smaller display's top, and the platform may adjust it.
        const Rect expected{{0 + (640.0 / 2560.0) * 1440, 70 + ((283.0 - 0) / 1415.0) * 805}, {1440, 805}};
        EXPECT_EQ(desktop.windowFrame(editorWindow), WindowLayout::accessibilityFrame(expected, 900)) << rawValue(command);
        apply(WindowCommand::restore);
        EXPECT_EQ(editorFrame(), onLarge);
    }
}

TEST_F(WindowManagerTest, AWindowOffEveryScreenIsLaidOutOnTheFirstButNotMovedAcross) {
    desktop.application(editor)->focusedWindow()->setPosition({9000, 9000});
    desktop.clearRecords();
    apply(WindowCommand::nextDisplay);
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
}

TEST_F(WindowManagerTest, ScreenReaderModeIsSwitchedOffAroundTheWritesAndBackOn) {
    desktop.setEnhancedUserInterface(editor, true);
    apply(WindowCommand::maximize);
    EXPECT_EQ(desktop.accessibilityWrites(),
              (std::vector<std::string>{"501 enhancedUserInterface false", "501 size 1440 805", "501 position 0 25",
                                        "501 size 1440 805", "501 enhancedUserInterface true"}));
    EXPECT_EQ(desktop.applicationInfo(editor)->enhancedUserInterface, true);

    // An attribute that cannot be read counts as off: nothing is switched.
    desktop.setEnhancedUserInterface(editor, std::nullopt);
    desktop.clearRecords();
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(desktop.accessibilityWrites(),
              (std::vector<std::string>{"501 size 720 805", "501 position 0 25", "501 size 720 805"}));
}

TEST_F(WindowManagerTest, MissingOrUnreadableWindowsAreLoggedAndLeftAlone) {
    struct Case {
        const char* what;
        std::function<void()> arrange;
        const char* line;
    };
    const Case cases[] = {
        {"no focused window", [&] { desktop.setFocusedWindow(editor, std::nullopt); }, "No focused window for pid 501"},
        {"focus on something else", [&] { desktop.setFocusedWindow(editor, 0, true); }, "No focused window for pid 501"},
        {"frame cannot be read",
         [&] {
             desktop.setFocusedWindow(editor, 0);
             desktop.setWindowBehaviour(editorWindow, {.readFails = true});
         },
         "Could not read window frame for pid 501"},
    };
    for (const auto& c : cases) {
        c.arrange();
        desktop.clearRecords();
        apply(WindowCommand::leftHalf);
        EXPECT_TRUE(desktop.accessibilityWrites().empty()) << c.what;
        EXPECT_EQ(windowLines().back(), c.line) << c.what;
        windows->queue().sync([&] { EXPECT_EQ(windows->restoreFrame(editor), std::nullopt) << c.what; });
    }
    // A process that is gone has no focused window either.
    windows->apply(WindowCommand::leftHalf, 999, ScreenSnapshot::current(desktop));
    scheduler.runUntilIdle();
    EXPECT_EQ(windowLines().back(), "No focused window for pid 999");
}

TEST_F(WindowManagerTest, AHungApplicationCostsTheHalfSecondTimeOutNotItsHang) {
    desktop.setHang(editor, 30);
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(desktop.waitedSeconds(), 0.5);
    EXPECT_EQ(windowLines().back(), "No focused window for pid 501");
    EXPECT_EQ(editorFrame(), rect(200, 180, 800, 600));

    // A slow one within the time-out is still served.
    desktop.setHang(editor, 0.25);
    desktop.clearRecords();
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
    // Focused window, position, size, screen-reader mode, and three writes.
    EXPECT_DOUBLE_EQ(desktop.waitedSeconds(), 7 * 0.25);
}

TEST_F(WindowManagerTest, ARefusedSizeLeavesTheSizeButTheMoveStillHappens) {
    desktop.setWindowBehaviour(editorWindow, {.refusesSize = true});
    apply(WindowCommand::leftHalf);
    EXPECT_EQ(desktop.accessibilityWrites().size(), 3u);
    EXPECT_EQ(desktop.windowFrame(editorWindow), rect(0, 25, 800, 600));
}

TEST_F(WindowManagerTest, TheSecondSizeCorrectsWhatTheScreenClampedOnTheWay) {
    // Taller than the laptop's visible frame, which clamps the first size; the large display has
    // room for it.
    auto window = desktop.application(editor)->focusedWindow();
    window->setPosition({20, 0});
    window->setSize({1400, 1300});
    desktop.setWindowBehaviour(editorWindow, {.clampsToScreen = true});
    desktop.clearRecords();
    apply(WindowCommand::nextDisplay);
    ASSERT_EQ(desktop.accessibilityWrites().size(), 3u);
    const Rect frame = editorFrame();
    EXPECT_EQ(frame.size, (Size{1400, 1300}));
    EXPECT_GE(frame.minX(), 1440);
}

TEST_F(WindowManagerTest, WithOneOrNoDisplayNothingMovesOrIsRememberedAndZeroSizedScreensDoNotCrash) {
    // One display: there is no other to move to. None: there is nothing to lay out on.
    desktop.setScreens({ScreenInfo{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)}});
    apply(WindowCommand::nextDisplay);
    apply(WindowCommand::previousDisplay);
    desktop.setScreens({});
    apply(WindowCommand::leftHalf);
    apply(WindowCommand::nextDisplay);
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    windows->queue().sync([&] { EXPECT_EQ(windows->restoreFrame(editor), std::nullopt); });

    desktop.setScreens({ScreenInfo{rect(0, 0, 0, 0), rect(0, 0, 0, 0)}});
    apply(WindowCommand::center);
    // The layout runs on screen 0 as the rules say; the platform is left to refuse a zero size.
    EXPECT_EQ(desktop.accessibilityWrites().size(), 3u);
}

TEST_F(WindowManagerTest, CommandsRunInTheOrderAskedOnTheWindowsQueue) {
    EXPECT_EQ(windows->queue().label(), "com.orvell.tavrick.windows");
    windows->apply(WindowCommand::leftHalf, editor, ScreenSnapshot::current(desktop));
    windows->apply(WindowCommand::topHalf, editor, ScreenSnapshot::current(desktop));
    windows->apply(WindowCommand::restore, editor, ScreenSnapshot::current(desktop));
    EXPECT_TRUE(desktop.accessibilityWrites().empty());  // nothing happens on the caller's thread
    scheduler.runUntilIdle();
    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
}

#include "ActionKit/ActionFixture.h"
#include "ActionKit/SnapPreview.h"
#include "ActionKit/WindowSnapper.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSnapPreview.h"

#include <nlohmann/json.hpp>

namespace tavrick::testing {
namespace {

// The snapper over the simulated desktop of the action tests: the editor's window sits at
// (200, 120) 800 × 600 from the top-left, so its title bar is the band y 120…148.
class WindowSnapperTest : public ActionFixture {
protected:
    void SetUp() override {
        ActionFixture::SetUp();
        screen = SimulatedSnapPreview::make();
        preview = std::make_unique<SnapPreviewWindow>([this] { return screen->makeSurface(); });
        snapper = std::make_unique<WindowSnapper>(
            SnapperEnvironment{session, scheduler, desktop, desktop, desktop, ownPid}, *windows);
        snapper->onPreview = [this](std::optional<Rect> frame) {
            previews.push_back(frame);
            if (frame) {
                preview->show(*frame);
            } else {
                preview->hide();
            }
        };
        snapper->start();
    }
    void TearDown() override {
        snapper.reset();
        ActionFixture::TearDown();
    }

    // Lets the tap's thread hand over what it heard and the main queue act on it.
    void settle() {
        ASSERT_TRUE(session.drain());
        scheduler.runUntilIdle();
    }

    // A drag with the user's hand: the window follows when pressed on its title bar. Returns
    // whether the preview showed after each step, press and release included.
    std::vector<bool> drag(Point from, Point to, int steps = 12) {
        std::vector<bool> shown;
        EXPECT_TRUE(SessionBridge::postWindowDrag(session, desktop, from, to, steps, [&] {
            settle();
            shown.push_back(screen->state().visible);
        }));
        return shown;
    }

    void post(EventType type, Point at) {
        session.post(Event::mouse(type, at, 0));
        settle();
    }

    std::vector<Rect> shownFrames() const {
        std::vector<Rect> frames;
        for (const auto& p : previews) {
            if (p) frames.push_back(*p);
        }
        return frames;
    }

    std::shared_ptr<SimulatedSnapPreview> screen;
    std::unique_ptr<SnapPreviewWindow> preview;
    std::unique_ptr<WindowSnapper> snapper;
    std::vector<std::optional<Rect>> previews;
};

TEST_F(WindowSnapperTest, ATitleBarDraggedToAnEdgeShowsThePreviewAndSnapsThereOnRelease) {
    const auto shown = drag({600, 130}, {2, 450});
    // Pressed, then eleven moves short of the edge, the last one at it, then released.
    ASSERT_EQ(shown.size(), 14u);
    EXPECT_FALSE(shown.front());
    EXPECT_TRUE(shown[12]) << "at the edge, before the release";
    EXPECT_FALSE(shown.back()) << "gone after the release";
    EXPECT_EQ(shownFrames(), (std::vector<Rect>{rect(0, 70, 720, 805)}));
    EXPECT_EQ(previews.back(), std::nullopt);

    EXPECT_EQ(editorFrame(), rect(0, 70, 720, 805));
    EXPECT_TRUE(logs.contains("windows", "Snapping to Left Half"));
    const auto state = screen->state();
    EXPECT_EQ(state.appearances, 1u);
    EXPECT_EQ(state.frame, rect(0, 70, 720, 805));
    EXPECT_EQ(state.alpha, 0.0);
    EXPECT_FALSE(snapper->isDraggingWindow());
    EXPECT_EQ(snapper->dragStartWindowFrame(), std::nullopt);
    EXPECT_EQ(snapper->armedZone(), std::nullopt);
}

TEST_F(WindowSnapperTest, EachCornerAndEdgeOfTheLaptopGivesItsFrame) {
    struct Case {
        Point to;  // top-left origin, y down, as the pointer reports it
        Rect frame;
    } cases[] = {
        {{1439, 450}, rect(720, 70, 720, 805)},      // right edge
        {{700, 25}, rect(0, 70, 1440, 805)},         // top edge of the visible area: maximise
        {{700, 829}, rect(0, 70, 1440, 402.5)},      // bottom, just above the dock
        {{1, 30}, rect(0, 472.5, 720, 402.5)},       // top-left corner
        {{1439, 30}, rect(720, 472.5, 720, 402.5)},  // top-right corner
        {{1, 829}, rect(0, 70, 720, 402.5)},         // bottom-left corner
        {{1439, 829}, rect(720, 70, 720, 402.5)},    // bottom-right corner
    };
    // The laptop alone: with the wide display beside it, a window dragged to the right edge
    // hangs over onto that display and snaps there.
    desktop.setScreens({ScreenInfo{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)}});
    for (const auto& c : cases) {
        // The window goes back to where the title bar is under the press.
        windows->performApply(WindowCommand::center, editor, ScreenSnapshot::of(desktop.screens()));
        const auto start = *desktop.windowFrame(editorWindow);
        previews.clear();
        drag({start.minX() + 100, start.minY() + 10}, c.to);
        EXPECT_EQ(editorFrame(), c.frame) << c.to.x << "," << c.to.y;
        EXPECT_EQ(shownFrames(), (std::vector<Rect>{c.frame})) << c.to.x << "," << c.to.y;
    }
}

TEST_F(WindowSnapperTest, APressOnContentThatLeavesTheWindowStillShowsNothingAndMovesNothing) {
    // A text selection dragged all the way to the edge.
    const auto shown = drag({600, 400}, {2, 450});
    for (bool visible : shown) EXPECT_FALSE(visible);
    EXPECT_TRUE(previews.empty() || shownFrames().empty());
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    EXPECT_EQ(editorFrame(), rect(200, 180, 800, 600));
}

TEST_F(WindowSnapperTest, AWobbleOfTwoPointsIsNotAWindowDrag) {
    post(EventType::leftMouseDown, {600, 130});
    desktop.moveFrontmostWindow(2, -2);
    post(EventType::leftMouseDragged, {2, 450});
    EXPECT_FALSE(snapper->isDraggingWindow());
    EXPECT_TRUE(shownFrames().empty());
    // Half a point more and the window has moved.
    desktop.moveFrontmostWindow(0.5, 0);
    post(EventType::leftMouseDragged, {2, 451});
    EXPECT_TRUE(snapper->isDraggingWindow());
    EXPECT_EQ(snapper->armedZone(), SnapZone::leftHalf);
}

TEST_F(WindowSnapperTest, ReleasingAwayFromEveryZoneOnlyResets) {
    drag({600, 130}, {700, 500});
    EXPECT_TRUE(shownFrames().empty());
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    EXPECT_FALSE(logs.has(LogLevel::notice, "Snapping to"));
    EXPECT_EQ(snapper->dragStartWindowFrame(), std::nullopt);
    // Leaving a zone before the release takes the preview away and snaps nothing.
    previews.clear();
    const auto start = *desktop.windowFrame(editorWindow);
    post(EventType::leftMouseDown, {start.minX() + 50, start.minY() + 5});
    desktop.moveFrontmostWindow(-500, 0);
    post(EventType::leftMouseDragged, {2, 450});
    EXPECT_TRUE(screen->state().visible);
    post(EventType::leftMouseDragged, {300, 450});
    EXPECT_FALSE(screen->state().visible);
    post(EventType::leftMouseUp, {300, 450});
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
}

TEST_F(WindowSnapperTest, StayingInOneZoneAsksOnceAndTheSameZoneOnAnotherScreenReArms) {
    // Two displays of one size side by side: the top edge maximises on both.
    desktop.setScreens({ScreenInfo{rect(0, 0, 1000, 800), rect(0, 0, 1000, 780)},
                        ScreenInfo{rect(1000, 0, 1000, 800), rect(1000, 0, 1000, 780)}});
    post(EventType::leftMouseDown, {600, 130});
    desktop.moveFrontmostWindow(0, -100);
    // Along the top edge, clear of the corners, and on across to the second display with the
    // window under the pointer.
    for (double x : {400, 500, 600}) post(EventType::leftMouseDragged, {x, 22});
    desktop.moveFrontmostWindow(1000, 0);
    for (double x : {1400, 1500, 1600}) post(EventType::leftMouseDragged, {x, 22});
    EXPECT_EQ(shownFrames(), (std::vector<Rect>{rect(0, 0, 1000, 780), rect(1000, 0, 1000, 780)}));
    EXPECT_EQ(screen->state().appearances, 1u);
    EXPECT_EQ(screen->state().moves, 1u);
    EXPECT_EQ(snapper->armedScreen(), rect(1000, 0, 1000, 780));
    post(EventType::leftMouseUp, {1600, 22});
    // On the 800-point-high first display, 780 visible from the bottom is 20 from the top.
    EXPECT_EQ(desktop.windowFrame(editorWindow), rect(1000, 20, 1000, 780));
}

TEST_F(WindowSnapperTest, StoppingInTheMiddleOfADragHidesThePreviewAndTheReleaseDoesNothing) {
    post(EventType::leftMouseDown, {600, 130});
    desktop.moveFrontmostWindow(-598, 0);
    post(EventType::leftMouseDragged, {2, 450});
    ASSERT_TRUE(screen->state().visible);
    snapper->stop();
    EXPECT_FALSE(snapper->isRunning());
    EXPECT_FALSE(screen->state().visible);
    EXPECT_EQ(previews.back(), std::nullopt);
    EXPECT_TRUE(session.taps().empty());
    EXPECT_TRUE(logs.contains("windows", "Window snapping stopped"));
    post(EventType::leftMouseUp, {2, 450});
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
}

TEST_F(WindowSnapperTest, EventsHeardBeforeAStopAreDroppedAfterIt) {
    session.post(Event::mouse(EventType::leftMouseDown, {600, 130}, 0));
    desktop.moveFrontmostWindow(-598, 0);
    session.post(Event::mouse(EventType::leftMouseDragged, {2, 450}, 0));
    ASSERT_TRUE(session.drain());
    snapper->stop();  // the two events wait on the main queue
    scheduler.runUntilIdle();
    EXPECT_TRUE(shownFrames().empty());
    EXPECT_EQ(snapper->dragStartWindowFrame(), std::nullopt);
}

TEST_F(WindowSnapperTest, NothingHappensWhileThisProgramOrNoWindowOrAHungApplicationIsInFront) {
    struct Case {
        const char* what;
        std::function<void()> arrange;
    } cases[] = {
        {"this program in front", [&] { desktop.activate(ownPid); }},
        {"no focused window", [&] { desktop.setFocusedWindow(editor, std::nullopt); }},
        {"an application that does not answer in time", [&] { desktop.setHang(editor, 0.2); }},
    };
    for (const auto& c : cases) {
        c.arrange();
        previews.clear();
        const auto shown = drag({600, 130}, {2, 450});
        for (bool visible : shown) EXPECT_FALSE(visible) << c.what;
        EXPECT_TRUE(shownFrames().empty()) << c.what;
        EXPECT_TRUE(desktop.accessibilityWrites().empty()) << c.what;
        EXPECT_FALSE(logs.has(LogLevel::notice, "Snapping to")) << c.what;
        desktop.activate(editor);
        desktop.setFocusedWindow(editor, 0);
        desktop.setHang(editor, 0);
        // A drag pressed where the title bar was no longer is: put the window back.
        windows->performApply(WindowCommand::center, editor, ScreenSnapshot::of(desktop.screens()));
        desktop.clearRecords();
    }
}

TEST_F(WindowSnapperTest, AnApplicationThatQuitsMidDragIsSaidAndNothingIsWritten) {
    post(EventType::leftMouseDown, {600, 130});
    desktop.moveFrontmostWindow(-598, 0);
    post(EventType::leftMouseDragged, {2, 450});
    ASSERT_EQ(snapper->armedZone(), SnapZone::leftHalf);
    // The last two applications go, so that nobody comes forward in the editor's place.
    desktop.terminate(ownPid);
    desktop.terminate(editor);
    post(EventType::leftMouseUp, {2, 450});
    EXPECT_TRUE(logs.contains("windows", "Nothing to snap: no application is in front any more"));
    EXPECT_FALSE(logs.has(LogLevel::notice, "Snapping to"));
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    EXPECT_FALSE(screen->state().visible);
}

TEST_F(WindowSnapperTest, TheReadInsideADragWaitsAtMostAFewHundredthsOfASecond) {
    drag({600, 130}, {2, 450});
    const auto timeouts = desktop.messagingTimeouts();
    ASSERT_FALSE(timeouts.empty());
    // Every read of the drag at 0.15 s; only the window command's own write takes 0.5 s.
    EXPECT_EQ(timeouts.back(), WindowManager::messagingTimeout);
    for (std::size_t i = 0; i + 1 < timeouts.size(); ++i) EXPECT_EQ(timeouts[i], 0.15) << i;
}

TEST_F(WindowSnapperTest, ARefusedTapThrowsLeavesItStoppedAndALaterStartWorks) {
    snapper->stop();
    session.setTapCreationAllowed(false);
    EXPECT_THROW(snapper->start(), EventTapError);
    EXPECT_FALSE(snapper->isRunning());
    session.setTapCreationAllowed(true);
    snapper->start();
    snapper->start();  // once is enough
    ASSERT_EQ(session.taps().size(), 1u);
    EXPECT_EQ(session.taps()[0].mask, EventMask{0x46});
    EXPECT_EQ(session.taps()[0].options, TapOptions::listenOnly);
    EXPECT_EQ(logs.count("windows", "Window snapping started"), 2u);
}

TEST_F(WindowSnapperTest, TheSimulatedPreviewIsWhatTheStateFileShows) {
    post(EventType::leftMouseDown, {600, 130});
    desktop.moveFrontmostWindow(-598, 0);
    post(EventType::leftMouseDragged, {2, 450});
    const auto section = screen->stateSection();
    EXPECT_EQ(section["visible"], true);
    EXPECT_EQ(section["alpha"], 1.0);
    EXPECT_EQ(section["frame"], (nlohmann::json{{"x", 0}, {"y", 70}, {"width", 720}, {"height", 805}}));
    post(EventType::leftMouseUp, {2, 450});
    EXPECT_EQ(screen->stateSection()["visible"], false);
}

} // namespace
} // namespace tavrick::testing

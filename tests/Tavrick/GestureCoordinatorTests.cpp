// The coordinator's side of the trackpad and mouse engines: start order, errors, the master
// switch and waking from sleep.
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Directories.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/Toast.h"
#include "GestureEngine/TouchFixtures.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Platform/Simulated/SimulatedTrackpad.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/CoordinatorHarness.h"

#include <gtest/gtest.h>

#include <algorithm>


using namespace tavrick;
using namespace tavrick::testing;

namespace {

// A three-finger swipe left, a mouse "up, then left" everywhere and a mouse "left" for Safari.
const char* mappingsFile = R"({
  "mappings": [
    {"id": "11111111-1111-4111-8111-111111111111", "name": "Back", "isEnabled": true,
     "trigger": {"gesture": {"_0": {"direction": "left", "fingerCount": 3, "kind": "swipe"}}},
     "action": {"window": {"_0": "leftHalf"}}},
    {"id": "22222222-2222-4222-8222-222222222222", "name": "", "isEnabled": true,
     "trigger": {"mouseGesture": {"_0": {"strokes": ["up", "left"]}}}, "action": {"window": {"_0": "rightHalf"}}},
    {"id": "33333333-3333-4333-8333-333333333333", "name": "Everywhere left", "isEnabled": true,
     "trigger": {"mouseGesture": {"_0": {"strokes": ["left"]}}}, "action": {"window": {"_0": "topHalf"}}},
    {"id": "44444444-4444-4444-8444-444444444444", "name": "Safari left", "isEnabled": true,
     "trigger": {"mouseGesture": {"_0": {"strokes": ["left"]}}}, "action": {"window": {"_0": "bottomHalf"}},
     "scope": {"app": {"bundleID": "com.apple.Safari", "name": "Safari"}}}
  ],
  "schemaVersion": 1
})";

class GestureCoordinatorTest : public CoordinatorHarness {
protected:
    void SetUp() override {
        CoordinatorHarness::SetUp();
        writeFile(root / "mappings.json", mappingsFile);
    }
    void adjust(AppEnvironment& environment) override {
        environment.touchSource = source;
        environment.frontmostBundleID = "com.apple.Safari";
    }
    std::shared_ptr<AppCoordinator> make(std::shared_ptr<TouchSource> touches) {
        source = std::move(touches);
        return CoordinatorHarness::make();
    }

    void drag(std::vector<Point> points) {
        session.post(Event::mouse(EventType::rightMouseDown, points.front(), 1));
        for (std::size_t i = 1; i < points.size(); ++i) {
            const Point a = points[i - 1], b = points[i];
            for (int s = 1; s <= 10; ++s) {
                session.post(Event::mouse(EventType::rightMouseDragged,
                                          {a.x + (b.x - a.x) * s / 10.0, a.y + (b.y - a.y) * s / 10.0}, 1));
            }
        }
        session.post(Event::mouse(EventType::rightMouseUp, points.back(), 1));
        ASSERT_TRUE(session.drain());
        scheduler.runUntilIdle();
    }

    std::shared_ptr<TouchSource> source;
    std::shared_ptr<SimulatedTrackpad> trackpad = std::make_shared<SimulatedTrackpad>();
};

} // namespace

TEST_F(GestureCoordinatorTest, AGestureEngineThatCannotStartIsItsOwnErrorAndStopsNothingElse) {
    LogCapture lines(LogLevel::error);
    // No source given: the trackpad service's library, which this machine does not have.
    make(nullptr)->start();
    EXPECT_EQ(coordinator->gestureError().get(), "The system multitouch service could not be opened.");
    EXPECT_TRUE(lines.contains("gesture", "Gesture engine did not start: The system multitouch service could not be opened."));
    EXPECT_EQ(coordinator->engineError().get(), std::nullopt);
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    EXPECT_TRUE(coordinator->mouseGestures().isRunning()) << "the mouse engine came up before";

    coordinator->setEnabled(false);
    EXPECT_EQ(coordinator->gestureError().get(), std::nullopt) << "switching off clears it";
}

TEST_F(GestureCoordinatorTest, StoreChangesReachTheEnginesInOrderOnTheCallingThread) {
    make(trackpad)->start();
    LogCapture lines(LogLevel::info);
    coordinator->store().add(
        gestureMapping("Tap", GestureSpec{4, GestureKind::tap, std::nullopt}, true, ActionSpec::toggleAwake()));
    // Nothing was run on any queue: the engines have it already.
    EXPECT_TRUE(coordinator->gestures().table().match(GestureSpec{4, GestureKind::tap, std::nullopt}));
    std::vector<std::string> order;
    for (const auto& line : lines.lines()) {
        if (line.message.rfind("Watching ", 0) == 0) order.push_back(line.category);
    }
    EXPECT_EQ(order, (std::vector<std::string>{"hotkey", "gesture"}));
    EXPECT_TRUE(noted("[gesture] watching 2: 3-finger swipe left -> Left Half; 4-finger tap -> Toggle Keep Awake"));
}

TEST_F(GestureCoordinatorTest, ASwipeOnTheTrackpadRunsItsActionOnTheMainThread) {
    make(trackpad)->start();
    ASSERT_TRUE(coordinator->gestures().isRunning());
    EXPECT_EQ(coordinator->gestureError().get(), std::nullopt);
    trackpad->play({fingers(0, 3), fingers(0.0625, 3), fingers(0.25, 3, 0.375), lifted(0.3125)});
    EXPECT_FALSE(noted("[action] running Left Half")) << "not before the main queue runs";
    scheduler.runUntilIdle();
    EXPECT_TRUE(noted("[action] running Left Half"));
    EXPECT_EQ(coordinator->lastGesture().get(), (GestureSpec{3, GestureKind::swipe, GestureDirection::left}));
    coordinator->clearLastGesture();
    EXPECT_EQ(coordinator->lastGesture().get(), std::nullopt);
}

TEST_F(GestureCoordinatorTest, MouseStrokesRunTheirActionsAndTheFrontAppsBindingWins) {
    make(trackpad)->start();
    ASSERT_TRUE(coordinator->mouseGestures().isRunning());
    EXPECT_TRUE(noted("[mouse] mouse gestures watching"));

    drag({{300, 300}, {300, 240}, {240, 240}});
    EXPECT_TRUE(noted("[mouse] mouse gesture ↑← -> ran 'Right Half'"));
    EXPECT_TRUE(noted("[action] running Right Half"));

    drag({{300, 300}, {220, 300}});
    EXPECT_TRUE(noted("[action] running Bottom Half")) << "Safari is in front at start";
    workspace.post({WorkspaceEvent::didActivateApplication, "org.mozilla.firefox"});
    scheduler.runUntilIdle();
    drag({{300, 300}, {220, 300}});
    EXPECT_TRUE(noted("[action] running Top Half"));
}

TEST_F(GestureCoordinatorTest, TheMasterSwitchStopsAndRestartsBothEngines) {
    make(trackpad)->start();
    coordinator->setEnabled(false);
    EXPECT_FALSE(coordinator->gestures().isRunning());
    EXPECT_FALSE(coordinator->mouseGestures().isRunning());
    EXPECT_TRUE(session.taps().empty()) << "hotkeys, mouse and suppression taps all gone";
    drag({{300, 300}, {300, 240}, {240, 240}});
    EXPECT_FALSE(noted("[action] running Right Half"));

    coordinator->setEnabled(true);
    EXPECT_TRUE(coordinator->gestures().isRunning());
    EXPECT_TRUE(coordinator->mouseGestures().isRunning());
}

TEST_F(GestureCoordinatorTest, WakingReopensTheTrackpadStreamOnlyWhenItRan) {
    LogCapture lines(LogLevel::error);
    make(trackpad)->start();
    workspace.post({WorkspaceEvent::didWake, std::nullopt});
    scheduler.runUntilIdle();
    EXPECT_TRUE(noted("[gesture] woke from sleep — trackpad stream reopened"));
    EXPECT_TRUE(coordinator->gestures().isRunning());

    trackpad->setConnected(false);
    workspace.post({WorkspaceEvent::didWake, std::nullopt});
    scheduler.runUntilIdle();
    EXPECT_TRUE(noted("[gesture] woke from sleep — could not reopen the trackpad stream: No trackpad was found."));
    EXPECT_TRUE(lines.contains("gesture", "Reopening after wake failed: No trackpad was found."));
    EXPECT_EQ(coordinator->gestureError().get(), std::nullopt) << "the error text stays as it was";

    // Not running now: a wake does nothing at all.
    log->flush();
    const auto before = log->contents();
    trackpad->setConnected(true);
    workspace.post({WorkspaceEvent::didWake, std::nullopt});
    scheduler.runUntilIdle();
    log->flush();
    EXPECT_EQ(log->contents(), before);
    EXPECT_FALSE(coordinator->gestures().isRunning());
}

TEST_F(GestureCoordinatorTest, BindingsTheSystemAlsoAnswersAreNotedWhenTheTrackpadIsReadAndOnEachRestart) {
    const std::string line =
        "[gesture] 'Back' (3-finger swipe left) — macOS uses this for Swipe between full-screen applications";
    auto countLine = [&] {
        auto all = notes();
        return std::count(all.begin(), all.end(), line);
    };
    // Nothing set: three-finger swipes sideways are the user's.
    make(trackpad)->start();
    EXPECT_TRUE(coordinator->gestureConflicts().empty());
    EXPECT_EQ(countLine(), 0);

    // The Bluetooth trackpad turns it on; the built-in one's zero does not stand against it.
    const auto preferences = Directories::current().preferences();
    writeFile(preferences / "com.apple.AppleMultitouchTrackpad/defaults.json",
              R"({"TrackpadThreeFingerHorizSwipeGesture": 0})");
    writeFile(preferences / "com.apple.driver.AppleBluetoothMultitouch.trackpad/defaults.json",
              R"({"TrackpadThreeFingerHorizSwipeGesture": 2})");
    const auto found = coordinator->gestureConflicts();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].mapping.name, "Back");
    EXPECT_EQ(SystemGestureConflicts::advice(found[0].conflict).title,
              "macOS also uses this gesture for Swipe between full-screen applications");
    EXPECT_EQ(countLine(), 0) << "read when asked; noted only when the engine starts";

    coordinator->setEnabled(false);
    EXPECT_EQ(countLine(), 0);
    coordinator->setEnabled(true);
    EXPECT_EQ(countLine(), 1);
    coordinator->retryEngines();
    EXPECT_EQ(countLine(), 2);

    // A disabled binding is no conflict, and the files were only read.
    coordinator->store().setEnabled(false, found[0].mapping.id);
    EXPECT_TRUE(coordinator->gestureConflicts().empty());
    EXPECT_EQ(readFile(preferences / "com.apple.AppleMultitouchTrackpad/defaults.json"),
              R"({"TrackpadThreeFingerHorizSwipeGesture": 0})");
}

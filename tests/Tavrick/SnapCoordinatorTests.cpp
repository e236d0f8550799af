#include "CoreKit/EventTap.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSnapPreview.h"
#include "Support/LogCapture.h"
#include "Tavrick/CoordinatorHarness.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class SnapCoordinatorTest : public CoordinatorHarness {
protected:
    void SetUp() override {
        CoordinatorHarness::SetUp();
        desktop.setWaiter([](double) {});
        desktop.setScreens({ScreenInfo{{{0, 0}, {1440, 900}}, {{0, 70}, {1440, 805}}}});
        editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
        window = desktop.addWindow(editor, "Untitled", {{200, 120}, {800, 600}});
        desktop.activate(editor);
    }
    void adjust(AppEnvironment& environment) override {
        environment.snapPreviewSurface = [screen = screen] { return screen->makeSurface(); };
    }

    // The user's drag, with every queue run after each step; whether the preview showed then.
    std::vector<bool> drag(Point from, Point to) {
        std::vector<bool> shown;
        EXPECT_TRUE(SessionBridge::postWindowDrag(session, desktop, from, to, 6, [&] {
            EXPECT_TRUE(session.drain());
            scheduler.runUntilIdle();
            shown.push_back(screen->state().visible);
        }));
        return shown;
    }

    std::shared_ptr<SimulatedSnapPreview> screen = SimulatedSnapPreview::make();
    std::int32_t editor = 0;
    std::uint64_t window = 0;
};

const std::string refusedTap =
    "Could not create the event tap. This usually means Input Monitoring or Accessibility permission has not been granted.";

} // namespace

TEST_F(SnapCoordinatorTest, ADragToTheTopEdgeAfterTheStartMaximisesWithThePreviewOnlyDuringIt) {
    make();
    // Before the deferred start nobody listens.
    drag({600, 130}, {700, 26});
    EXPECT_EQ(screen->state().appearances, 0u);
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{300, 16}, {800, 600}})) << "moved, not snapped";

    coordinator->start();
    ASSERT_TRUE(coordinator->snapper().isRunning());
    const auto shown = drag({600, 30}, {700, 26});
    ASSERT_EQ(shown.size(), 8u);
    EXPECT_TRUE(shown[6]);
    EXPECT_FALSE(shown[7]);
    EXPECT_EQ(screen->state().appearances, 1u);
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{0, 25}, {1440, 805}}));
}

TEST_F(SnapCoordinatorTest, TheSettingAndTheMasterSwitchDecideTogetherWhetherSnappingRuns) {
    make()->start();
    LogCapture captured;
    std::vector<bool> seen;
    auto observation = coordinator->isWindowSnappingEnabled().observe([&](bool on) { seen.push_back(on); });

    coordinator->setWindowSnappingEnabled(false);
    EXPECT_FALSE(coordinator->snapper().isRunning());
    EXPECT_EQ(defaults.object("windowSnappingEnabled"), PreferenceValue(false));
    coordinator->setWindowSnappingEnabled(true);
    EXPECT_TRUE(coordinator->snapper().isRunning());
    EXPECT_EQ(seen, (std::vector<bool>{false, true}));
    EXPECT_EQ(captured.messages("windows"),
              (std::vector<std::string>{"Window snapping stopped", "Window snapping started"}));

    struct Case {
        bool setting;
        bool running;
    } cases[] = {{true, true}, {false, false}};
    for (const auto& c : cases) {
        coordinator->setWindowSnappingEnabled(c.setting);
        coordinator->setEnabled(false);
        EXPECT_FALSE(coordinator->snapper().isRunning()) << c.setting;
        coordinator->setEnabled(true);
        EXPECT_EQ(coordinator->snapper().isRunning(), c.running) << c.setting;
    }

    // A change that does not come through the switch (a restored backup) is followed too.
    coordinator->settings().isWindowSnappingEnabled.set(true);
    EXPECT_TRUE(coordinator->snapper().isRunning());
    coordinator->settings().isWindowSnappingEnabled.set(false);
    EXPECT_FALSE(coordinator->snapper().isRunning());
}

TEST_F(SnapCoordinatorTest, TheSettingOffAtLaunchKeepsSnappingOffAndTheSwitchBeforeTheStartWaitsForIt) {
    defaults.set("windowSnappingEnabled", false);
    make();
    coordinator->setWindowSnappingEnabled(true);
    EXPECT_FALSE(coordinator->snapper().isRunning()) << "nothing runs before the deferred start";
    coordinator->setWindowSnappingEnabled(false);
    coordinator->start();
    EXPECT_FALSE(coordinator->snapper().isRunning());
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    for (const auto& tap : session.taps()) EXPECT_NE(tap.mask, WindowSnapper::eventMask) << "no snapping tap";
}

TEST_F(SnapCoordinatorTest, ARefusedTapIsTheSnapErrorTheOtherEnginesStillStartAndTheSwitchRetries) {
    LogCapture captured;
    session.setTapCreationAllowed(false);
    make()->start();
    EXPECT_EQ(coordinator->snapError().get(), refusedTap);
    EXPECT_TRUE(captured.has(LogLevel::error, "Window snapping did not start: " + refusedTap));
    EXPECT_FALSE(coordinator->snapper().isRunning());

    session.setTapCreationAllowed(true);
    coordinator->setWindowSnappingEnabled(true);  // the same value: the switch still retries
    EXPECT_TRUE(coordinator->snapper().isRunning());
    EXPECT_EQ(coordinator->snapError().get(), std::nullopt);
}

TEST_F(SnapCoordinatorTest, TheEndOfTheCoordinatorTakesTheTapAndThePreviewAway) {
    make()->start();
    session.post(Event::mouse(EventType::leftMouseDown, {600, 130}, 0));
    ASSERT_TRUE(session.drain());
    scheduler.runUntilIdle();
    desktop.moveFrontmostWindow(-598, 0);
    session.post(Event::mouse(EventType::leftMouseDragged, {2, 450}, 0));
    ASSERT_TRUE(session.drain());
    scheduler.runUntilIdle();
    ASSERT_TRUE(screen->state().visible);
    coordinator.reset();
    EXPECT_TRUE(session.taps().empty());
    EXPECT_FALSE(screen->state().visible);
    scheduler.runUntilIdle();
}

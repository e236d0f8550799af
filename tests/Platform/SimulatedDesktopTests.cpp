#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace tavrick;
using namespace tavrick::testing;

namespace {
Rect rect(double x, double y, double w, double h) {
    return Rect{{x, y}, {w, h}};
}
} // namespace

TEST(SimulatedDesktop, TheSeededDesktopHasTwoScreensAppsWithWindowsAndOneInFront) {
    SimulatedDesktop desktop;
    SimulatedDesktop::seedDefault(desktop, 4242);
    auto screens = desktop.screens();
    ASSERT_EQ(screens.size(), 2u);
    EXPECT_NE(screens[0].frame.size, screens[1].frame.size);
    EXPECT_EQ(screens[1].frame.minX(), screens[0].frame.maxX());  // side by side
    auto front = desktop.frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_NE(front->processIdentifier, 4242);
    EXPECT_TRUE(desktop.frontmostWindowFrame().has_value());
    ASSERT_EQ(desktop.runningApplications("com.orvell.tavrick").size(), 1u);
    EXPECT_EQ(desktop.runningApplications("com.orvell.tavrick")[0].processIdentifier, 4242);
    EXPECT_EQ(desktop.runningApplications("com.apple.finder").size(), 1u);
    EXPECT_TRUE(desktop.applicationURL("org.gnome.Calculator").has_value());
    EXPECT_TRUE(desktop.launchedBundleIDs().empty());
}

TEST(SimulatedDesktop, TheStateFileIsRewrittenOnChangeWithIntegralNumbersAndCocoaFrames) {
    TempDir dir;
    ManualScheduler scheduler;
    SimulatedDesktop desktop;
    desktop.setScreens({ScreenInfo{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)}});
    const auto pid = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
    const auto window = desktop.addWindow(pid, "Untitled", rect(200, 120, 800, 600));
    desktop.activate(pid);
    const auto file = dir / "support/session-state.json";
    const auto written = [&] {
        scheduler.runUntilIdle();
        return nlohmann::json::parse(readFile(file));
    };
    desktop.writeStateTo(file, scheduler);
    auto state = written();
    EXPECT_EQ(state["frontmost"], "org.gnome.TextEditor");
    EXPECT_EQ(state["applications"][0]["windows"][0]["frame"],
              nlohmann::json({{"x", 200}, {"y", 180}, {"width", 800}, {"height", 600}}));
    EXPECT_EQ(state["permissions"]["accessibility"], "granted");
    // "200", never "200.0".
    EXPECT_NE(readFile(file).find("\"x\": 200,"), std::string::npos);

    // A burst of changes is one write, with the last state.
    auto element = desktop.application(pid)->focusedWindow();
    element->setSize({720, 805});
    element->setPosition({0, 25});
    desktop.setAccessibilityPermission(SimulatedPermission::denied);
    EXPECT_EQ(scheduler.pendingBlocks(), 1u);
    state = written();
    EXPECT_EQ(state["applications"][0]["windows"][0]["frame"],
              nlohmann::json({{"x", 0}, {"y", 70}, {"width", 720}, {"height", 805}}));
    EXPECT_EQ(state["permissions"]["accessibility"], "denied");
    EXPECT_EQ(desktop.windowFrame(window), rect(0, 25, 720, 805));
    // Another device adds its own part and asks for a rewrite when it changes.
    int changeCount = 3;
    desktop.addStateSection("pasteboard", [&] { return nlohmann::json{{"changeCount", changeCount}}; });
    EXPECT_EQ(written()["pasteboard"]["changeCount"], 3);
    changeCount = 4;
    desktop.noteStateChange();
    EXPECT_EQ(written()["pasteboard"]["changeCount"], 4);

    // Fractions stay fractions.
    element->setSize({1000 / 3.0, 805});
    EXPECT_EQ(written()["applications"][0]["windows"][0]["frame"]["width"].get<double>(), 1000 / 3.0);
}

TEST(SimulatedDesktop, AClampingWindowStaysInsideTheScreenItMostlyCovers) {
    SimulatedDesktop desktop;
    desktop.setScreens({ScreenInfo{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)}});
    const auto pid = desktop.addApplication({.pid = 501, .bundleID = "a", .name = "A"});
    const auto window = desktop.addWindow(pid, "w", rect(100, 100, 400, 300), {.clampsToScreen = true});
    auto element = desktop.application(pid)->focusedWindow();
    element->setSize({3000, 3000});
    EXPECT_EQ(desktop.windowFrame(window), rect(0, 25, 1440, 805));
    element->setPosition({-500, 800});
    EXPECT_EQ(desktop.windowFrame(window), rect(0, 25, 1440, 805));
}

TEST(SimulatedDesktop, LaunchingTerminatingAndOpeningAreRecorded) {
    TempDir dir;
    SimulatedDesktop desktop;
    const auto first = desktop.addApplication({.pid = 501, .bundleID = "a", .name = "A"});
    const auto second = desktop.addApplication({.pid = 502, .bundleID = "b", .name = "B"});
    std::vector<std::string> cameForward;
    desktop.setOnActivate([&](const RunningApplication& app) { cameForward.push_back(*app.bundleIdentifier); });
    desktop.activate(second);
    desktop.install({"c", "C", "/apps/c.desktop", rect(0, 0, 100, 100)});
    std::optional<std::string> failure = "not called";
    desktop.openApplication("/apps/c.desktop", [&](std::optional<std::string> f) { failure = f; });
    EXPECT_EQ(failure, std::nullopt);
    EXPECT_EQ(desktop.frontmostApplication()->bundleIdentifier, "c");
    desktop.openApplication("/apps/none.desktop", [&](std::optional<std::string> f) { failure = f; });
    EXPECT_EQ(failure, "there is no application at /apps/none.desktop");

    EXPECT_TRUE(desktop.terminate(desktop.frontmostApplication()->processIdentifier));
    EXPECT_EQ(desktop.frontmostApplication()->processIdentifier, second);  // the newest one left comes forward
    EXPECT_FALSE(desktop.terminate(9999));
    EXPECT_TRUE(desktop.terminate(second));
    EXPECT_TRUE(desktop.terminate(first));
    EXPECT_EQ(desktop.frontmostApplication(), std::nullopt);
    EXPECT_EQ(desktop.terminatedBundleIDs(), (std::vector<std::string>{"c", "b", "a"}));
    // Activation, a launch, and a quit that left another in front are each told once.
    EXPECT_EQ(cameForward, (std::vector<std::string>{"b", "c", "b", "a"}));

    EXPECT_EQ(desktop.open(URL{"file:///no/such/file"}), "The file does not exist.");
    EXPECT_EQ(desktop.open(URL{"file://" + dir.path().string()}), std::nullopt);
    desktop.failOpening("https://down.example/", "the handler crashed");
    EXPECT_EQ(desktop.open(URL{"https://down.example/"}), "the handler crashed");
    EXPECT_EQ(desktop.openedURLs(), std::vector<std::string>{"file://" + dir.path().string()});
}

TEST(SimulatedDesktop, PermissionsAnswerAsThePlatformDoes) {
    SimulatedDesktop desktop;
    struct Case {
        SimulatedPermission state;
        int listen;
    };
    for (auto c : {Case{SimulatedPermission::granted, 0}, Case{SimulatedPermission::denied, 1},
                   Case{SimulatedPermission::notDetermined, 2}}) {
        desktop.setInputMonitoringPermission(c.state);
        EXPECT_EQ(desktop.listenAccess(), c.listen);
        EXPECT_EQ(desktop.requestListenAccess(), c.listen == 0);
    }
    desktop.setAccessibilityPermission(SimulatedPermission::notDetermined);
    EXPECT_FALSE(desktop.isAccessibilityTrusted());
    desktop.promptForAccessibility();
    EXPECT_EQ(desktop.accessibilityPrompts(), 1u);
    EXPECT_EQ(desktop.listenAccessRequests(), 3u);
    EXPECT_EQ(fromRaw<SimulatedPermission>("notDetermined"), SimulatedPermission::notDetermined);
    EXPECT_EQ(fromRaw<SimulatedPermission>("unknown"), std::nullopt);
}

#pragma once

#include "ActionKit/ActionRunner.h"
#include "ActionKit/WindowManager.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"
#include "Support/USLayout.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tavrick::testing {

inline Rect rect(double x, double y, double w, double h) {
    return Rect{{x, y}, {w, h}};
}

// A runner over the simulated desktop, on virtual time: two displays (a 1440 × 900 laptop with
// its menu bar and dock, and a 2560 × 1440 display to its right), an editor in front with one
// window, and this process.
class ActionFixture : public ::testing::Test {
protected:
    static constexpr std::int32_t ownPid = 4242;

    void SetUp() override {
        log = DiagnosticLog::make(dir.path() / "support", scheduler);
        desktop.setWaiter([](double) {});
        desktop.setScreens({ScreenInfo{rect(0, 0, 1440, 900), rect(0, 70, 1440, 805)},
                            ScreenInfo{rect(1440, 0, 2560, 1440), rect(1440, 0, 2560, 1415)}});
        editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
        editorWindow = desktop.addWindow(editor, "Untitled", rect(200, 120, 800, 600));
        desktop.addApplication({.pid = ownPid, .bundleID = "com.orvell.tavrick", .name = "Tavrick"});
        desktop.activate(editor);
        desktop.clearRecords();
        windows = std::make_unique<WindowManager>(desktop, scheduler);
        runner = std::make_unique<ActionRunner>(
            ActionEnvironment{
                .log = *log,
                .workspace = desktop,
                .launcher = desktop,
                .events = session,
                .screens = desktop,
                .windowList = desktop,
                .finderDefaults = finderDefaults,
                .home = dir.path(),
                .ownProcessIdentifier = ownPid,
                .isAccessibilityTrusted = [this] { return trusted; },
            },
            *windows);
    }
    void TearDown() override {
        runner.reset();
        windows.reset();
    }

    // Runs the action and everything it queued.
    void run(const ActionSpec& action) {
        runner->run(action);
        scheduler.runUntilIdle();
    }

    // The focused editor window, with the origin at the bottom-left as the layout counts.
    Rect editorFrame() const {
        auto frame = desktop.windowFrame(editorWindow);
        return frame ? Rect{{frame->minX(), 900 - frame->maxY()}, frame->size} : Rect{};
    }

    std::vector<std::string> notes() {
        log->flush();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        for (std::string line; std::getline(in, line);) lines.push_back(line.size() > 24 ? line.substr(24) : line);
        return lines;
    }

    TempDir dir;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log;
    SimulatedDesktop desktop;
    SimulatedSession session;
    InMemoryPreferenceStore finderDefaults;
    bool trusted = true;
    std::int32_t editor = 0;
    std::uint64_t editorWindow = 0;
    std::unique_ptr<WindowManager> windows;
    std::unique_ptr<ActionRunner> runner;
    LogCapture logs{LogLevel::info};
    USLayout layout;
};

} // namespace tavrick::testing

// The coordinator's links between the everyday services, on virtual time.
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/Toast.h"
#include "Platform/Simulated/InMemoryPowerAssertions.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/CoordinatorHarness.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class EverydayTest : public CoordinatorHarness {
protected:
    void adjust(AppEnvironment& environment) override {
        environment.supportDirectory = root / "support";
        environment.pasteboard = pasteboard;
        environment.powerAssertions = assertions;
        environment.processes = std::make_shared<NoProcesses>();
        environment.lidSensors = [this] { return lid; };
    }
    AppCoordinator& make() { return *CoordinatorHarness::make(); }

    std::shared_ptr<SimulatedPasteboard> pasteboard = std::make_shared<SimulatedPasteboard>();
    std::shared_ptr<InMemoryPowerAssertions> assertions = std::make_shared<InMemoryPowerAssertions>();
    LidReadings lid;
};

} // namespace

TEST_F(EverydayTest, TheKeepAwakeAndClipboardActionsDoTheirWorkAndTheLogSaysSo) {
    auto& app = make();
    app.start();
    EXPECT_TRUE(noted("[launch] keep-awake holds an assertion held in memory only (no system bus with logind here), so "
                      "nothing stops the machine idling"));
    app.actions().run(ActionSpec::toggleAwake());
    EXPECT_EQ(assertions->held().size(), 1u);
    EXPECT_TRUE(noted("[awake] keep-awake on — Indefinitely, Keep display on"));
    app.actions().run(ActionSpec::toggleAwake());
    EXPECT_TRUE(assertions->held().empty());
    EXPECT_TRUE(noted("[awake] keep-awake off"));

    // Showing the clipboard opens Settings once the menu is ready.
    app.actions().run(ActionSpec::showClipboardHistory());
    EXPECT_TRUE(noted("[window] asked to open Settings before the menu bar was ready"));
    int opened = 0;
    app.presentSettings = [&] { ++opened; };
    app.actions().run(ActionSpec::showClipboardHistory());
    EXPECT_EQ(opened, 1);
}

TEST_F(EverydayTest, FocusHoldsKeepAwakeAndABreakLetsGoOfIt) {
    auto& app = make();
    app.start();
    app.actions().run(ActionSpec::pomodoro(PomodoroAction::startOrPause));
    EXPECT_TRUE(app.pomodoro().isRunning().get());
    EXPECT_TRUE(app.awake().isActive().get());
    EXPECT_TRUE(app.pomodoroHoldsAwake());

    // Focus ends; the break starts by itself and the timer's session goes.
    scheduler.advance(1500);
    EXPECT_EQ(app.pomodoro().phase().get(), PomodoroPhase::shortBreak);
    EXPECT_FALSE(app.awake().isActive().get());
    EXPECT_FALSE(app.pomodoroHoldsAwake());
    EXPECT_EQ(notifications.titlesAndBodies(), (std::vector<std::string>{"Time for a break | Focus finished."}));

    scheduler.advance(300);
    EXPECT_EQ(notifications.titlesAndBodies().back(), "Back to work | Short Break finished.");
    EXPECT_TRUE(app.awake().isActive().get());

    app.actions().run(ActionSpec::pomodoro(PomodoroAction::reset));
    EXPECT_FALSE(app.awake().isActive().get());
    EXPECT_EQ(app.pomodoro().completedFocusSessions().get(), 0);
}

TEST_F(EverydayTest, TheTimerOnlyEverStopsTheSessionItStartedItself) {
    auto& app = make();
    app.start();
    const auto startOrPause = ActionSpec::pomodoro(PomodoroAction::startOrPause);
    // Skipping moves on quietly: a break, then focus again.
    app.actions().run(ActionSpec::pomodoro(PomodoroAction::skipPhase));
    EXPECT_EQ(app.pomodoro().phase().get(), PomodoroPhase::shortBreak);
    app.actions().run(ActionSpec::pomodoro(PomodoroAction::skipPhase));

    // A refused assertion leaves the timer holding nothing, so a session started later is the user's.
    assertions->setRefusal(3);
    app.actions().run(startOrPause);
    EXPECT_FALSE(app.pomodoroHoldsAwake());
    assertions->setRefusal(0);
    app.awake().start(AwakeMode::allowDisplaySleep, AwakeSession::indefinite());
    app.actions().run(startOrPause);  // pause
    EXPECT_TRUE(app.awake().isActive().get());
    // Nor does the timer take over a session already running when it starts.
    app.actions().run(startOrPause);
    EXPECT_FALSE(app.pomodoroHoldsAwake());
    app.actions().run(startOrPause);
    EXPECT_TRUE(app.awake().isActive().get());

    // The timer's own session, stopped by the user and started again by hand, is the user's now.
    app.awake().stop();
    app.actions().run(startOrPause);
    EXPECT_TRUE(app.pomodoroHoldsAwake());
    app.awake().stop();
    app.awake().toggle();
    app.actions().run(startOrPause);
    EXPECT_TRUE(app.awake().isActive().get());
    EXPECT_TRUE(notifications.titlesAndBodies().empty());
}

TEST_F(EverydayTest, TheNoteIsFlushedOnSleepPowerOffAndQuit) {
    auto& app = make();
    app.start();
    const auto file = root / "support/Notepad.txt";
    for (auto event : {WorkspaceEvent::willSleep, WorkspaceEvent::willPowerOff, WorkspaceEvent::willTerminate}) {
        const std::string text = "note " + std::to_string(static_cast<int>(event));
        app.notepad().setText(text);
        workspace.post({event, std::nullopt});
        EXPECT_EQ(readFile(file), text);
    }
}

TEST_F(EverydayTest, AFailedSaveShowsTheToast) {
    writeFile(root / "support", "not a folder");
    auto& app = make();
    app.start();
    app.notepad().setText("hello");
    scheduler.advance(0.5);
    EXPECT_NE(std::find(presenter->lines.begin(), presenter->lines.end(),
                        "warning The note could not be saved | Tried to write to " + (root / "support/Notepad.txt").string()),
              presenter->lines.end());
}

TEST_F(EverydayTest, CopiesAreRecordedAndForgottenAtQuitWhenAsked) {
    defaults.set("clipboardClearOnQuit", true);
    auto& app = make();
    app.start();
    pasteboard->copy({{Pasteboard::plainTextType, "copied"}});
    scheduler.advance(0.4);
    ASSERT_EQ(app.clipboard().history().get().items().size(), 1u);
    EXPECT_TRUE(noted("[clipboard] recorded a copy; 1 in the history"));
    workspace.post({WorkspaceEvent::willTerminate, std::nullopt});
    EXPECT_TRUE(app.clipboard().history().get().items().empty());
    EXPECT_FALSE(std::filesystem::exists(root / "support/clipboard.json"));
}

TEST_F(EverydayTest, TheClipboardFollowsItsSettingsAndWritesChangesBack) {
    defaults.set("clipboardMaximumItems", 20);
    defaults.set("clipboardEnabled", false);
    auto& app = make();
    EXPECT_EQ(app.clipboard().policy().get().maximumItems, 20);
    EXPECT_FALSE(app.clipboard().isEnabled().get());

    app.clipboard().setEnabled(true);
    auto policy = app.clipboard().policy().get();
    policy.maximumItems = 250;
    policy.clearOnQuit = true;
    app.clipboard().setPolicy(policy);
    EXPECT_EQ(defaults.object("clipboardEnabled"), PreferenceValue(true));
    EXPECT_EQ(defaults.object("clipboardMaximumItems"), PreferenceValue(250));
    EXPECT_EQ(defaults.object("clipboardClearOnQuit"), PreferenceValue(true));

    // Settings taken on from elsewhere reach the clipboard.
    app.settings().clipboardMaximumItems.set(10);
    app.settings().isClipboardEnabled.set(false);
    EXPECT_EQ(app.clipboard().policy().get().maximumItems, 10);
    EXPECT_TRUE(app.clipboard().policy().get().clearOnQuit);
    EXPECT_FALSE(app.clipboard().isEnabled().get());
}

TEST_F(EverydayTest, TheLidIsDescribedAtLaunchAndWatchedFromThen) {
    lid.onPowerAdapter = false;
    lid.externalDisplays = 1;
    auto& app = make();
    lid.lidClosed = true;
    scheduler.advance(30);
    EXPECT_EQ(defaults.object("lidObservations"), std::nullopt);
    app.start();
    EXPECT_TRUE(noted("[lid] On battery: Not set up for it — Closing the lid sleeps this Mac. Running with it shut "
                      "needs an external keyboard or mouse."));
    scheduler.advance(25);
    auto stored = defaults.object("lidObservations");
    ASSERT_TRUE(stored && stored->asData());
    const auto json = nlohmann::json::parse(stored->asData()->begin(), stored->asData()->end());
    EXPECT_EQ(json["battery"]["outcome"], "keptRunning");
}

TEST_F(EverydayTest, AVaultCopySkipsTheHistoryAndItsTimersFollowTheSettings) {
    defaults.set("vaultClipboardSeconds", std::int64_t{15});
    defaults.set("vaultLockSeconds", std::int64_t{60});
    auto& app = make();
    app.start();
    auto& panel = app.vaultPanel();
    std::optional<std::optional<std::string>> created;
    panel.submitCreate(std::nullopt, false, [&](std::optional<std::string> error) { created = error; });
    scheduler.runUntilIdle();
    ASSERT_TRUE(created.has_value());
    ASSERT_EQ(*created, std::nullopt);
    auto& editor = panel.beginAdd(VaultKind::apiKey);
    editor.setTitle("Deploy");
    editor.set("key", "sk-live-0123456789");
    ASSERT_TRUE(panel.confirmEditor());
    const UUID id = app.vault().items.get().front().id;

    panel.copy(id, "key");
    EXPECT_EQ(panel.message(), "Copied \u2014 the pasteboard clears in 15s, and the history skipped it.");
    scheduler.advance(1.0);
    EXPECT_TRUE(app.clipboard().history().get().items().empty()) << "the concealed copy was recorded";
    scheduler.advance(14.0);
    EXPECT_EQ(pasteboard->string(), std::nullopt);

    // A minute after the last use the vault locks by itself; nothing of it is in the log.
    scheduler.advance(45.0);
    EXPECT_FALSE(app.vault().isUnlocked.get());
    for (const auto& line : notes()) {
        EXPECT_EQ(line.find("sk-live"), std::string::npos) << line;
        EXPECT_EQ(line.find("Deploy"), std::string::npos) << line;
    }
}

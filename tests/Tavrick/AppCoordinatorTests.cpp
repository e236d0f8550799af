#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/KeyCodes.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/Modifiers.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/Toast.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/CoordinatorHarness.h"
#include "Tavrick/TavrickApp.h"
#include "Platform/Simulated/SimulatedSMC.h"
#include "Support/LogCapture.h"
#include "CoreKit/Appearance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// ⌃⌥← and ⌃⌥→, as a user's file would hold them.
const char* mappingsFile = R"({
  "mappings": [
    {"id": "11111111-1111-4111-8111-111111111111", "name": "", "isEnabled": true,
     "trigger": {"hotkey": {"_0": {"keyCode": 123, "modifiers": 12}}}, "action": {"window": {"_0": "leftHalf"}}},
    {"id": "22222222-2222-4222-8222-222222222222", "name": "Awake", "isEnabled": true,
     "trigger": {"hotkey": {"_0": {"keyCode": 124, "modifiers": 12}}}, "action": {"toggleAwake": {}}}
  ],
  "schemaVersion": 1
})";

class CoordinatorTest : public CoordinatorHarness {
protected:
    void SetUp() override {
        CoordinatorHarness::SetUp();
        writeFile(root / "mappings.json", mappingsFile);
    }
    void adjust(AppEnvironment& environment) override { environment.fans = fanEnvironment; }

    // Presses a key in the session and lets every queue run.
    void press(std::uint16_t keyCode, Modifiers modifiers) {
        session.post(Event::keyboard(keyCode, true, modifiers.cgFlags()));
        session.post(Event::keyboard(keyCode, false, modifiers.cgFlags()));
        ASSERT_TRUE(session.drain());
        scheduler.runUntilIdle();
    }

    std::shared_ptr<FanEnvironment> fanEnvironment;
};

const Modifiers controlOption = Modifiers::control | Modifiers::option;

} // namespace

TEST_F(CoordinatorTest, NothingListensBeforeTheDeferredStart) {
    make();
    EXPECT_TRUE(session.taps().empty());
    press(KeyCodes::leftArrow, controlOption);
    EXPECT_EQ(session.delivered().size(), 2u);  // down and up reach the application untouched
    EXPECT_FALSE(noted("[action] running Left Half"));
}

TEST_F(CoordinatorTest, StartWritesTheLaunchNotesInOrderAndAnnouncesTwoSecondsLater) {
    inputMonitoring = PermissionState::unknown;
    make()->start();
    auto lines = notes();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "[launch] Tavrick 1.2.3 (45) macOS Debian 12, accessibility=granted, inputMonitoring=denied, mappings=2");
    EXPECT_EQ(lines[1], "[launch] selection bar=off, copy-on-select=off");
    EXPECT_EQ(lines[2], "[launch] menu layout — nothing hidden");
    // Nothing here can stand in front of the vault's passphrase.
    EXPECT_EQ(lines[3], "[vault] cannot unlock without the passphrase: no way to authenticate on this Mac");
    EXPECT_TRUE(presenter->lines.empty());

    scheduler.advance(1.9);
    EXPECT_TRUE(presenter->lines.empty());
    scheduler.advance(0.1);
    EXPECT_EQ(presenter->lines, (std::vector<std::string>{"Tavrick is running | Using 25.0 MB of memory"}));
    EXPECT_EQ(notes().back(), "[launch] footprint 25.0 MB");
}

TEST_F(CoordinatorTest, AnnouncementWithoutAFootprintHasNoDetailAndNoNote) {
    footprint = std::nullopt;
    make()->start();
    scheduler.advance(2.0);
    EXPECT_EQ(presenter->lines, (std::vector<std::string>{"Tavrick is running"}));
    for (const auto& line : notes()) EXPECT_EQ(line.find("footprint"), std::string::npos);
}

TEST_F(CoordinatorTest, ConfirmationsOffSilenceTheAnnouncement) {
    defaults.set("showConfirmations", false);
    make()->start();
    scheduler.advance(2.0);
    EXPECT_TRUE(presenter->lines.empty());
}

TEST_F(CoordinatorTest, AnUncleanEndBeforeIsNotedFirst) {
    writeFile(root / "support/running.marker", "");
    make()->start();
    auto lines = notes();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "[launch] the previous run ended without a clean shutdown — a crash or a kill, not a Quit");
}

TEST_F(CoordinatorTest, AHotkeyCrossesToTheMainThreadAndRunsItsAction) {
    make()->start();
    int awake = 0;
    coordinator->actions().onToggleAwake = [&] { ++awake; };

    press(KeyCodes::leftArrow, controlOption);
    EXPECT_TRUE(noted("[hotkey] ⌃⌥← fired 'Left Half'"));
    EXPECT_TRUE(noted("[action] running Left Half"));
    // The key-down was swallowed; its key-up passes, since it is outside the tap's mask.
    ASSERT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.delivered()[0].type, EventType::keyUp);

    press(KeyCodes::rightArrow, controlOption);
    EXPECT_EQ(awake, 1);
    // Not an exact modifier match: passes through and fires nothing.
    press(KeyCodes::rightArrow, controlOption | Modifiers::shift);
    EXPECT_EQ(awake, 1);
}

TEST_F(CoordinatorTest, AMappingThatFiresAfterTheCoordinatorIsGoneIsDropped) {
    make()->start();
    session.post(Event::keyboard(KeyCodes::leftArrow, true, controlOption.cgFlags()));
    ASSERT_TRUE(session.drain());
    // The engine has handed the mapping to the global queue; the coordinator goes first.
    std::weak_ptr<AppCoordinator> weak = coordinator;
    coordinator.reset();
    EXPECT_TRUE(weak.expired());
    scheduler.runUntilIdle();
    EXPECT_FALSE(noted("[action] running Left Half"));
}

TEST_F(CoordinatorTest, StoreChangesReachTheEngineEvenWhenTheDiskFails) {
    make()->start();
    // The file's place becomes a directory, so every save from here on fails.
    std::filesystem::remove(root / "mappings.json");
    std::filesystem::create_directories(root / "mappings.json");
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = "Center it";
    mapping.trigger = Trigger::hotkey(HotkeySpec{8, Modifiers::control | Modifiers::option});
    mapping.action = ActionSpec::window(WindowCommand::center);
    coordinator->store().add(mapping);
    press(8, controlOption);
    EXPECT_TRUE(noted("[hotkey] ⌃⌥C fired 'Center it'"));
    EXPECT_TRUE(noted("[action] running Center"));
}

TEST_F(CoordinatorTest, MasterSwitchStopsAndRestartsTheTap) {
    make()->start();
    ASSERT_EQ(session.taps().size(), 2u);  // the hotkey tap and the snapping tap
    std::vector<bool> seen;
    auto observation = coordinator->isEnabled().observe([&](bool value) { seen.push_back(value); });

    coordinator->setEnabled(false);
    EXPECT_TRUE(session.taps().empty());
    EXPECT_FALSE(coordinator->hotkeys().isRunning());
    press(KeyCodes::leftArrow, controlOption);
    EXPECT_EQ(session.delivered().size(), 2u);

    coordinator->setEnabled(false);  // no change, nobody told
    coordinator->setEnabled(true);
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    EXPECT_EQ(seen, (std::vector<bool>{false, true}));
}

TEST_F(CoordinatorTest, ARefusedTapBecomesTheEngineErrorAndARetryClearsIt) {
    accessibility = PermissionState::denied;
    session.setTapCreationAllowed(false);
    make()->start();
    const std::string description =
        "Could not create the event tap. This usually means Input Monitoring or Accessibility permission has not been granted.";
    EXPECT_EQ(coordinator->engineError().get(), description);
    EXPECT_EQ(coordinator->blockingPermission(), Permission::accessibility);
    EXPECT_TRUE(noted("[launch] hotkey engine did not start: " + description));

    // Accessibility granted, the tap still refused: the retry fails and input monitoring blocks.
    accessibility = PermissionState::granted;
    inputMonitoring = PermissionState::denied;
    coordinator->permissions().refresh();
    EXPECT_TRUE(coordinator->engineError().get().has_value());
    EXPECT_EQ(coordinator->blockingPermission(), Permission::inputMonitoring);

    session.setTapCreationAllowed(true);
    coordinator->retryEngines();
    EXPECT_EQ(coordinator->engineError().get(), std::nullopt);
    EXPECT_EQ(coordinator->blockingPermission(), std::nullopt);
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
}

TEST_F(CoordinatorTest, TurningTheSwitchOffClearsTheEngineError) {
    session.setTapCreationAllowed(false);
    make()->start();
    ASSERT_TRUE(coordinator->engineError().get().has_value());
    coordinator->setEnabled(false);
    EXPECT_FALSE(coordinator->engineError().get().has_value());
}

TEST_F(CoordinatorTest, StartRunsOnce) {
    make()->start();
    coordinator->start();
    std::size_t launches = 0;
    for (const auto& line : notes()) launches += line.rfind("[launch] Tavrick ", 0) == 0;
    EXPECT_EQ(launches, 1u);
    EXPECT_EQ(session.taps().size(), 2u);  // the hotkey tap and the snapping tap
}

TEST_F(CoordinatorTest, GrantingThePermissionLaterRestartsTheEnginesWithoutARelaunch) {
    accessibility = PermissionState::denied;
    session.setTapCreationAllowed(false);
    make()->start();
    ASSERT_TRUE(coordinator->engineError().get().has_value());
    EXPECT_TRUE(coordinator->permissions().isPolling());

    scheduler.advance(3.0);  // still refused: polling goes on
    EXPECT_TRUE(coordinator->permissions().isPolling());
    EXPECT_FALSE(coordinator->hotkeys().isRunning());

    accessibility = PermissionState::granted;
    session.setTapCreationAllowed(true);
    scheduler.advance(1.0);
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    EXPECT_EQ(coordinator->engineError().get(), std::nullopt);
    EXPECT_FALSE(coordinator->permissions().isPolling());
    press(KeyCodes::leftArrow, controlOption);
    EXPECT_TRUE(noted("[action] running Left Half"));
}

TEST_F(CoordinatorTest, PermissionChangesAreIgnoredWhileTheSwitchIsOff) {
    accessibility = PermissionState::denied;
    session.setTapCreationAllowed(false);
    make()->start();
    coordinator->setEnabled(false);
    coordinator->permissions().beginPolling();
    accessibility = PermissionState::granted;
    session.setTapCreationAllowed(true);
    scheduler.advance(1.0);
    EXPECT_FALSE(coordinator->hotkeys().isRunning());
}

TEST_F(CoordinatorTest, NotificationsNeedConsentAndReplaceByIdentifier) {
    make();
    std::vector<std::string> logged;
    Log::setSink([&](LogLevel, std::string_view, std::string_view message) { logged.emplace_back(message); });

    coordinator->notify("New program online", "curl connected to example.org", std::string("net.curl"));
    ASSERT_EQ(notifications.added.size(), 1u);
    EXPECT_EQ(notifications.added[0], "net.curl | New program online | curl connected to example.org");

    coordinator->notify("Time for a break", "Focus finished.");
    ASSERT_EQ(notifications.added.size(), 2u);
    // Without a replacing identifier each one is new: a UUID in its text form.
    EXPECT_EQ(notifications.added[1].find(" | Time for a break | Focus finished."), 36u);

    notifications.grant = false;
    coordinator->notify("Refused", "silently");
    EXPECT_TRUE(logged.empty());
    notifications.error = "The user turned notifications off";
    coordinator->notify("Refused", "with a reason");
    EXPECT_EQ(logged, (std::vector<std::string>{"Notifications unavailable: The user turned notifications off"}));
    EXPECT_EQ(notifications.added.size(), 2u);
}

struct RecordingApplier : AppearanceController::Applier {
    std::vector<AppAppearance> applied;
    void apply(AppAppearance appearance) override { applied.push_back(appearance); }
};

TEST_F(CoordinatorTest, ConstructionAppliesTheAppearanceAndStartsThreeSecondsLater) {
    auto applier = std::make_shared<RecordingApplier>();
    AppearanceController::setApplier(applier);
    defaults.set("appearance", std::string("dark"));
    coordinator = TavrickApp::construct(environment());
    EXPECT_EQ(applier->applied, (std::vector<AppAppearance>{AppAppearance::dark}));

    scheduler.advance(2.999);
    EXPECT_FALSE(coordinator->hasStarted());
    EXPECT_TRUE(session.taps().empty());
    scheduler.advance(0.001);
    EXPECT_TRUE(coordinator->hasStarted());
    EXPECT_EQ(session.taps().size(), 2u);  // the hotkey tap and the snapping tap
}

TEST_F(CoordinatorTest, SwitchingOnWhenAlreadyOnRestartsAStoppedEngine) {
    make()->start();
    coordinator->hotkeys().stop();
    ASSERT_TRUE(coordinator->isEnabled().get());
    coordinator->setEnabled(true);
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    press(KeyCodes::leftArrow, controlOption);
    EXPECT_TRUE(noted("[action] running Left Half"));
}

TEST_F(CoordinatorTest, APermissionChangeSeenWhileTheEnginesStartDoesNotStartThemAgain) {
    accessibility = PermissionState::denied;
    session.setTapCreationAllowed(false);
    make()->start();
    ASSERT_TRUE(coordinator->engineError().get().has_value());

    // The grant lands between two refreshes: the one inside the start sees it change.
    LogCapture captured;
    accessibility = PermissionState::granted;
    session.setTapCreationAllowed(true);
    coordinator->setEnabled(true);
    EXPECT_FALSE(captured.contains("core", "Permission granted — restarting engines"));
    EXPECT_TRUE(coordinator->hotkeys().isRunning());
    EXPECT_EQ(session.taps().size(), 2u);  // the hotkey tap and the snapping tap
    EXPECT_FALSE(coordinator->permissions().isPolling());
}

TEST_F(CoordinatorTest, AWindowShortcutMovesTheFrontmostWindowOfTheDesktop) {
    desktop.setScreens({ScreenInfo{Rect{{0, 0}, {1440, 900}}, Rect{{0, 70}, {1440, 805}}}});
    const auto editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
    const auto window = desktop.addWindow(editor, "Untitled", Rect{{200, 120}, {800, 600}});
    desktop.activate(editor);
    make()->start();
    press(KeyCodes::leftArrow, controlOption);
    // Accessibility coordinates: 25 points of menu bar above the visible frame.
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{0, 25}, {720, 805}}));

    // Tavrick's own window in front is never the target.
    desktop.addApplication({.pid = ownPid, .bundleID = "com.orvell.tavrick", .name = "Tavrick"});
    desktop.activate(ownPid);
    desktop.clearRecords();
    press(KeyCodes::leftArrow, controlOption);
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
}

TEST_F(CoordinatorTest, RequestingAPermissionPromptsAndOpensThePaneOnlyWhenItHelps) {
    const std::string accessibilityPane = "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility";
    const std::string inputPane = "x-apple.systempreferences:com.apple.preference.security?Privacy_ListenEvent";
    make()->start();
    coordinator->requestPermission(Permission::accessibility);
    EXPECT_EQ(accessibilityPrompts, 1);
    EXPECT_TRUE(coordinator->permissions().isPolling());
    EXPECT_EQ(openedSettings, std::vector<std::string>{accessibilityPane});

    // Not asked before: the system's own request shows, so no pane.
    inputMonitoring = PermissionState::unknown;
    coordinator->permissions().refresh();
    coordinator->requestPermission(Permission::inputMonitoring);
    EXPECT_EQ(listenRequests, 1);
    EXPECT_EQ(openedSettings.size(), 1u);
    // Refused before: the request alone does nothing any more, so the pane opens.
    inputMonitoring = PermissionState::denied;
    coordinator->permissions().refresh();
    coordinator->requestPermission(Permission::inputMonitoring);
    EXPECT_EQ(listenRequests, 2);
    EXPECT_EQ(openedSettings, (std::vector<std::string>{accessibilityPane, inputPane}));
}

TEST_F(CoordinatorTest, TheLoginItemAndTheKeychainAreTheCoordinators) {
    loginStatus = 1;
    make();
    coordinator->loginItem().refresh();
    EXPECT_TRUE(coordinator->loginItem().state().get().isOn());
    EXPECT_TRUE(coordinator->keychain().set("sk-test", "anthropic-api-key"));
    EXPECT_EQ(secrets.copy("com.orvell.tavrick", "anthropic-api-key").data, "sk-test");
}

namespace {

struct EnabledInstaller : FanHelperInstaller {
    HelperServiceStatus status() override { return HelperServiceStatus::enabled; }
    void registerHelper() override {}
    void unregister(std::function<void(std::optional<std::string>)> done) override { done(std::nullopt); }
    void openLoginItems() override {}
};

// A helper that takes every boost and gives every fan back.
struct AgreeableHelper : FanHelperService {
    Scheduler& scheduler;
    std::string hash;
    std::vector<std::string> calls;
    AgreeableHelper(Scheduler& s, std::string h) : scheduler(s), hash(std::move(h)) {}
    static FanHelperReply::Status status(std::optional<FanRequest> request) {
        FanHelperReply::Status s;
        s.controlling = request.has_value();
        s.state = request ? FanHelperReply::Status::State::boosting : FanHelperReply::Status::State::idle;
        s.request = request;
        s.fans = {{0, 3000, 1200, 6000, 3000, request ? std::optional<int>(1) : std::optional<int>(0)}};
        s.setByTavrick = request ? std::vector<int>{0} : std::vector<int>{};
        return s;
    }
    void hello(double, std::function<void(FanHelperOutcome<FanHelperReply::Hello>)> done) override {
        calls.push_back("hello");
        scheduler.async([done, h = hash] { done(FanHelperReply::Hello{1, h, "45"}); });
    }
    void status(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) override {
        scheduler.async([done] { done(status(FanRequest{0.5, false})); });
    }
    void apply(const FanRequest& r, std::function<void(FanHelperOutcome<FanHelperReply::ApplyResult>)> done) override {
        calls.push_back("apply");
        scheduler.async([done, r] { done(FanHelperReply::ApplyResult{true, std::nullopt, status(r)}); });
    }
    void handBack(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) override {
        calls.push_back("handBack");
        scheduler.async([done] { done(status(std::nullopt)); });
    }
    void releaseFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)>) override {}
    void releaseUnrecordedFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)>) override {}
    void exitForUpdate(std::function<void(FanHelperOutcome<FanHelperReply::Status>)>) override {}
    void invalidate() override { calls.push_back("invalidate"); }
};

} // namespace

TEST_F(CoordinatorTest, AFanActionAsksTheHelperAndTheLogFollowsTheStates) {
    SimulatedSMC chip(root / "smc");
    chip.reset(2, 1200, 6000, 8);
    auto driver = chip.driver();
    auto source = chip.sensors();
    SMCReader reader(*driver);
    ThermalSensors sensors(*source);
    EnabledInstaller installer;
    writeFile(root / "helper", "helper bytes");
    FanHelperBundle bundle{"req", (root / "helper").string(), "45"};
    auto helper = std::make_shared<AgreeableHelper>(scheduler, *bundle.bundledHash());
    fanEnvironment = std::make_shared<FanEnvironment>(
        FanEnvironment{&installer, bundle, [helper] { return helper; }, &reader, &reader, &sensors});
    make();
    coordinator->actions().run(ActionSpec::fans(FanPreset::boost50));
    scheduler.advance(1);
    EXPECT_EQ(presenter->lines, (std::vector<std::string>{
                                    "Asking for Boost 50% | Boost 50% holds each fan at least half way, and faster when the chip is hot."}));
    EXPECT_EQ(coordinator->fanControl()->state().get().kind, FanController::State::Kind::boosting);
    coordinator->runFanPreset(FanPreset::toggleBoost);  // from a boost, toggle means automatic
    scheduler.advance(1);
    EXPECT_EQ(presenter->lines.back(), "Fans back to automatic | macOS decides how fast they turn");
    EXPECT_EQ(helper->calls, (std::vector<std::string>{"hello", "apply", "handBack"}));
    auto lines = notes();
    auto has = [&](const std::string& text) {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
    };
    EXPECT_TRUE(has("[fans] asked the fan helper for Fans at Boost 50%"));
    EXPECT_TRUE(has("[fans] fan control — Starting"));
    EXPECT_TRUE(has("[fans] fan control — Boosting"));
    EXPECT_TRUE(has("[fans] fan control — Ready"));
    // Quitting drops the connection, and with it the request: the helper hands back by itself.
    coordinator.reset();
    EXPECT_EQ(helper->calls.back(), "invalidate");
}

TEST_F(CoordinatorTest, WithoutFanControlAFanActionSaysSo) {
    make();
    coordinator->actions().run(ActionSpec::fans(FanPreset::max));
    auto lines = notes();
    EXPECT_NE(std::find_if(lines.begin(), lines.end(), [](const std::string& l) {
                  return l.find("[fans] fan control is not available in this build") != std::string::npos;
              }), lines.end());
    EXPECT_TRUE(presenter->lines.empty());
}

TEST_F(CoordinatorTest, TheFileServerFollowsItsSettingsOnceStarted) {
    std::filesystem::create_directories(root / "site");
    make();
    coordinator->settings().servePort.set(0);
    coordinator->settings().serveFolder.set((root / "site").string());
    EXPECT_FALSE(coordinator->fileServer().isRunning()) << "nothing listens before the deferred start";
    coordinator->start();
    ASSERT_TRUE(coordinator->fileServer().isRunning()) << coordinator->fileServer().state().get().message;
    EXPECT_FALSE(coordinator->fileServer().isOnNetwork().get());
    coordinator->settings().serveOnNetwork.set(true);
    EXPECT_TRUE(coordinator->fileServer().isOnNetwork().get());
    coordinator->settings().serveFolder.set((root / "gone").string());
    EXPECT_EQ(coordinator->fileServer().state().get(), StaticFileServer::State::failed("That folder is not there any more."));
    coordinator->settings().serveFolder.set("");
    EXPECT_EQ(coordinator->fileServer().state().get(), StaticFileServer::State::stopped());
}

#include "ActionFixture.h"

#include "ActionKit/FinderOpener.h"
#include "ActionKit/FinderTarget.h"
#include "CoreKit/SyntheticEvents.h"

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class ActionRunnerTest : public ActionFixture {
protected:
    bool logged(const std::string& line) const { return logs.contains("action", line); }
    // The key events that reached the frontmost application, as "down 13 cmd ours".
    std::vector<std::string> keys() {
        EXPECT_TRUE(session.drain());
        std::vector<std::string> out;
        for (const auto& e : session.delivered()) {
            out.push_back(std::string(e.type == EventType::keyDown ? "down " : "up ") + std::to_string(e.keyCode) + " " +
                          std::to_string(e.flags) + (SyntheticEvents::isOurs(e) ? " ours" : ""));
        }
        return out;
    }
};

} // namespace

TEST_F(ActionRunnerTest, EveryRunIsLoggedAndNotedWithItsDisplayString) {
    run(ActionSpec::window(WindowCommand::nextDisplay));
    run(ActionSpec::fans(FanPreset::boost25));
    run(ActionSpec::revealFile("~/Documents/report.pdf"));
    auto lines = notes();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"[action] running Move to Next Display", "[action] running Fans at Boost 25%",
                                        "[action] running Reveal report.pdf"}));
    EXPECT_EQ(logs.messages("action").front(), "Running Move to Next Display");
}

TEST_F(ActionRunnerTest, ServiceActionsGoToTheirClosuresAndDoNothingWithoutThem) {
    const ActionSpec actions[] = {ActionSpec::toggleAwake(),          ActionSpec::pomodoro(PomodoroAction::skipPhase),
                                  ActionSpec::showClipboardHistory(), ActionSpec::showSelectionBar(),
                                  ActionSpec::showNotepad(),          ActionSpec::fans(FanPreset::toggleBoost)};
    for (const auto& action : actions) run(action);  // nothing installed: nothing happens, nothing breaks
    EXPECT_EQ(notes().size(), 6u);

    std::vector<std::string> calls;
    runner->onToggleAwake = [&] { calls.push_back("awake"); };
    runner->onPomodoro = [&](PomodoroAction a) { calls.push_back("pomodoro " + std::string(rawValue(a))); };
    runner->onShowClipboard = [&] { calls.push_back("clipboard"); };
    runner->onShowSelectionBar = [&] { calls.push_back("selection"); };
    runner->onShowNotepad = [&] { calls.push_back("notepad"); };
    runner->onFans = [&](FanPreset p) { calls.push_back("fans " + std::string(rawValue(p))); };
    for (const auto& action : actions) run(action);
    EXPECT_EQ(calls, (std::vector<std::string>{"awake", "pomodoro skipPhase", "clipboard", "selection", "notepad",
                                               "fans toggleBoost"}));
}

TEST_F(ActionRunnerTest, AWindowCommandMovesTheFrontmostWindowUnlessThatIsTavrick) {
    run(ActionSpec::window(WindowCommand::rightHalf));
    EXPECT_EQ(editorFrame(), rect(720, 70, 720, 805));
    desktop.clearRecords();
    desktop.activate(ownPid);
    run(ActionSpec::window(WindowCommand::leftHalf));
    EXPECT_TRUE(desktop.accessibilityWrites().empty());
    EXPECT_TRUE(logged("Ignoring window command: Tavrick itself is frontmost"));

    // With nothing in front there is nothing to move, and nothing to say.
    desktop.terminate(ownPid);
    desktop.terminate(editor);
    run(ActionSpec::window(WindowCommand::leftHalf));
    EXPECT_EQ(logs.count("action", "Ignoring window command: Tavrick itself is frontmost"), 1u);
    EXPECT_EQ(logs.messages("windows").size(), 1u);  // only the right half's
}

TEST_F(ActionRunnerTest, LaunchOrActivateActivatesARunningCopyAndLaunchesOnlyWhenNoneRuns) {
    desktop.activate(ownPid);
    desktop.clearRecords();
    run(ActionSpec::launchOrActivate("org.gnome.TextEditor"));
    EXPECT_EQ(desktop.activatedBundleIDs(), std::vector<std::string>{"org.gnome.TextEditor"});
    EXPECT_TRUE(desktop.launchedBundleIDs().empty());
    EXPECT_EQ(desktop.frontmostApplication()->processIdentifier, editor);

    desktop.install({"org.gnome.Calculator", "Calculator", "/apps/calculator.desktop", rect(10, 10, 300, 400)});
    run(ActionSpec::launchOrActivate("org.gnome.Calculator"));
    EXPECT_EQ(desktop.launchedBundleIDs(), std::vector<std::string>{"org.gnome.Calculator"});
    EXPECT_EQ(desktop.frontmostApplication()->bundleIdentifier, "org.gnome.Calculator");
    // A second press finds it running.
    run(ActionSpec::launchOrActivate("org.gnome.Calculator"));
    EXPECT_EQ(desktop.launchedBundleIDs().size(), 1u);

    run(ActionSpec::launchOrActivate("com.example.Nowhere"));
    EXPECT_TRUE(logged("No app installed with bundle id com.example.Nowhere"));
    EXPECT_EQ(desktop.launchedBundleIDs().size(), 1u);
}

TEST_F(ActionRunnerTest, AFailedLaunchIsLoggedByItsCompletion) {
    struct FailingLauncher : DesktopLauncher {
        std::optional<std::string> applicationURL(const std::string&) const override { return "/apps/broken.desktop"; }
        void openApplication(const std::string&, std::function<void(std::optional<std::string>)> done) override {
            done("the program could not be started");
        }
        std::optional<std::string> open(const URL&) override { return "no handler"; }
        std::optional<std::string> reveal(const std::filesystem::path&) override { return "no file manager"; }
    } launcher;
    ActionEnvironment env = runner->environment();
    ActionRunner failing(ActionEnvironment{env.log, env.workspace, launcher, env.events, env.screens, env.windowList,
                                           env.finderDefaults, env.home, env.ownProcessIdentifier,
                                           env.isAccessibilityTrusted},
                         *windows);
    failing.run(ActionSpec::launchOrActivate("org.example.Broken"));
    failing.run(ActionSpec::openURL(*URL::fromString("https://example.org/")));
    failing.run(ActionSpec::revealFile(dir.path().string()));
    EXPECT_TRUE(logged("Could not launch org.example.Broken: the program could not be started"));
    EXPECT_TRUE(logged("Could not open https://example.org/: no handler"));
    EXPECT_TRUE(logged("Could not reveal " + dir.path().string() + ": no file manager"));
}

TEST_F(ActionRunnerTest, OpenAndRevealGoToTheWorkspaceAndAMissingPathIsSaid) {
    run(ActionSpec::openURL(*URL::fromString("https://example.org/a?b=c")));
    EXPECT_EQ(desktop.openedURLs(), std::vector<std::string>{"https://example.org/a?b=c"});

    writeFile(dir / "report.pdf", "%PDF");
    run(ActionSpec::revealFile("~/report.pdf"));
    EXPECT_EQ(desktop.revealedPaths(), std::vector<std::string>{(dir.path() / "report.pdf").string()});

    run(ActionSpec::revealFile("~/Nope"));
    EXPECT_TRUE(logged("Nothing at " + (dir.path() / "Nope").string()));
    run(ActionSpec::revealFile("/no/such/place"));
    EXPECT_TRUE(logged("Nothing at /no/such/place"));
    EXPECT_EQ(desktop.revealedPaths().size(), 1u);

    // Mission Control is opened the same way; not on this machine, so the failure says where it looked.
    run(ActionSpec::system(SystemCommand::missionControl));
    EXPECT_TRUE(logged("Could not open file:///System/Applications/Mission%20Control.app: The file does not exist."));
}

TEST_F(ActionRunnerTest, AKeystrokeIsAMarkedDownAndUpWithItsModifiersAndANote) {
    run(ActionSpec::sendKeystroke(HotkeySpec{8, Modifiers::command | Modifiers::shift}));
    const std::string flags = std::to_string((Modifiers::command | Modifiers::shift).cgFlags());
    EXPECT_EQ(keys(), (std::vector<std::string>{"down 8 " + flags + " ours", "up 8 " + flags + " ours"}));
    EXPECT_EQ(notes().back(), "[keystroke] sending ⇧⌘C to frontmost app 'Text Editor'");
}

TEST_F(ActionRunnerTest, TheKeystrokeNoteSaysWhoGetsItAndWhetherItCanArrive) {
    struct Case {
        const char* what;
        std::function<void()> arrange;
        std::string note;
    };
    const Case cases[] = {
        {"tavrick in front", [&] { desktop.activate(ownPid); },
         "[keystroke] sending ⌘W to frontmost app 'Tavrick' — which is Tavrick itself"},
        {"no permission", [&] { desktop.activate(editor); trusted = false; },
         "[keystroke] sending ⌘W to frontmost app 'Text Editor' — WITHOUT Accessibility, so it will be silently dropped"},
        {"both", [&] { desktop.activate(ownPid); },
         "[keystroke] sending ⌘W to frontmost app 'Tavrick' — which is Tavrick itself — WITHOUT Accessibility, so it will be silently dropped"},
        {"nobody in front", [&] { desktop.terminate(ownPid); desktop.terminate(editor); trusted = true; },
         "[keystroke] sending ⌘W to frontmost app 'unknown'"},
    };
    for (const auto& c : cases) {
        c.arrange();
        run(ActionSpec::sendKeystroke(HotkeySpec{13, Modifiers::command}));
        EXPECT_EQ(notes().back(), c.note) << c.what;
    }
    // Sent every time regardless: the system is the one that drops it.
    EXPECT_EQ(keys().size(), 8u);
}

TEST_F(ActionRunnerTest, KeystrokesThatCannotBeMadeAreLoggedAndNothingIsPosted) {
    session.setEventCreationAllowed(false);
    run(ActionSpec::sendKeystroke(HotkeySpec{8, Modifiers::command}));
    EXPECT_TRUE(logged("Could not synthesise key events for ⌘C"));
    session.setEventCreationAllowed(true);
    session.setEventSourceAvailable(false);
    run(ActionSpec::system(SystemCommand::copy));
    EXPECT_TRUE(logged("Could not create an event source"));
    EXPECT_TRUE(keys().empty());
    for (const auto& line : notes()) EXPECT_EQ(line.find("[keystroke]"), std::string::npos) << line;
}

TEST_F(ActionRunnerTest, SystemCommandsSendTheirKeys) {
    const std::string command = std::to_string(Modifiers::command.cgFlags());
    const std::string control = std::to_string(Modifiers::control.cgFlags());
    desktop.activate(ownPid);  // ⌘W goes even to Tavrick itself
    run(ActionSpec::system(SystemCommand::closeWindow));
    run(ActionSpec::system(SystemCommand::copy));
    run(ActionSpec::system(SystemCommand::nextFullScreenApp));
    run(ActionSpec::system(SystemCommand::previousFullScreenApp));
    EXPECT_EQ(keys(), (std::vector<std::string>{"down 13 " + command + " ours", "up 13 " + command + " ours",
                                                "down 8 " + command + " ours", "up 8 " + command + " ours",
                                                "down 124 " + control + " ours", "up 124 " + control + " ours",
                                                "down 123 " + control + " ours", "up 123 " + control + " ours"}));
}

TEST_F(ActionRunnerTest, QuitRefusesTavrickAndSaysSoInCapitalsForAnyOtherApp) {
    desktop.activate(ownPid);
    run(ActionSpec::system(SystemCommand::quitApplication));
    EXPECT_TRUE(logged("Refusing to quit Tavrick itself"));
    EXPECT_TRUE(desktop.terminatedBundleIDs().empty());

    desktop.activate(editor);
    run(ActionSpec::system(SystemCommand::quitApplication));
    EXPECT_TRUE(logged("Quitting Text Editor"));
    EXPECT_EQ(notes().back(), "[action] QUIT 'Text Editor' (terminating the process)");
    EXPECT_EQ(desktop.terminatedBundleIDs(), std::vector<std::string>{"org.gnome.TextEditor"});

    const auto nameless = desktop.addApplication({.pid = 777, .bundleID = "org.example.daemon", .name = ""});
    desktop.activate(nameless);
    run(ActionSpec::system(SystemCommand::quitApplication));
    EXPECT_EQ(notes().back(), "[action] QUIT '?' (terminating the process)");
}

TEST(FinderTarget, EveryCodeAndTheCustomPathRules) {
    const std::filesystem::path home = "/home/ann";
    const std::string recents = "file://" + std::string(FinderTarget::recentsPath);
    struct Case {
        std::optional<std::string> code;
        std::optional<std::string> custom;
        std::string expected;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, recents},
        {"PfDe", std::nullopt, "file:///home/ann/Desktop"},
        {"PfDo", std::nullopt, "file:///home/ann/Documents"},
        {"PfHm", std::nullopt, "file:///home/ann"},
        {"PfID", std::nullopt, "file:///home/ann/Library/Mobile%20Documents/com~apple~CloudDocs"},
        {"PfCm", std::nullopt, "file:///"},
        {"PfVo", std::nullopt, "file:///"},
        {"PfAF", std::nullopt, recents},
        {"PfXX", std::nullopt, "file:///home/ann"},
        {"", std::nullopt, "file:///home/ann"},
        {"PfLo", "file:///tmp/", "file:///tmp/"},
        {"PfLo", "~/work", "file:///home/ann/work"},
        {"PfLo", "/srv/data files", "file:///srv/data%20files"},
        {"PfLo", "", "file:///home/ann"},
        {"PfLo", std::nullopt, "file:///home/ann"},
        {"PfLo", "work", "file:///home/ann/work"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FinderTarget::url(c.code, c.custom, home).absoluteString, c.expected)
            << c.code.value_or("nil") << " " << c.custom.value_or("nil");
    }
}

TEST(FinderTarget, ValuesOfTheWrongTypeCountAsMissing) {
    InMemoryPreferenceStore finder(PreferenceValue::Dictionary{{"NewWindowTarget", 42}, {"NewWindowTargetPath", true}});
    EXPECT_EQ(FinderTarget::current(finder, "/home/ann").absoluteString,
              "file://" + std::string(FinderTarget::recentsPath));
    finder.set("NewWindowTarget", "PfLo");
    EXPECT_EQ(FinderTarget::current(finder, "/home/ann").absoluteString, "file:///home/ann");
    finder.set("NewWindowTargetPath", "file:///srv/");
    EXPECT_EQ(FinderTarget::current(finder, "/home/ann").absoluteString, "file:///srv/");
}

TEST_F(ActionRunnerTest, OpenFinderBringsUpAVisibleWindowOnlyWhenTallerThanAHundred) {
    desktop.addApplication({.pid = 600, .bundleID = "com.apple.finder", .name = "Finder"});
    struct Case {
        WindowListEntry entry;
        bool visible;
    };
    const Case cases[] = {
        {{"Finder", 0, rect(0, 0, 400, 100.5)}, true},
        {{"Finder", 0, rect(0, 0, 400, 100)}, false},
        {{"Finder", -2147483603, rect(0, 0, 1440, 900)}, false},
        {{"Finder", std::nullopt, rect(0, 0, 400, 300)}, false},
        {{"Files", 0, rect(0, 0, 400, 300)}, false},
        {{"Finder", 0, std::nullopt}, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FinderOpener::hasVisibleWindow({c.entry}), c.visible)
            << c.entry.ownerName.value_or("nil") << " " << c.entry.layer.value_or(-1);
    }

    desktop.addWindowListEntry({"Finder", 0, rect(0, 0, 400, 300)});
    run(ActionSpec::system(SystemCommand::openFinder));
    EXPECT_EQ(desktop.activatedBundleIDs().back(), "com.apple.finder");
    EXPECT_TRUE(desktop.openedURLs().empty());
}

TEST_F(ActionRunnerTest, OpenFinderWithoutAWindowOpensThePreferredPlaceOrFallsBackHome) {
    std::filesystem::create_directories(dir / "Documents");
    finderDefaults.set("NewWindowTarget", "PfDo");
    run(ActionSpec::system(SystemCommand::openFinder));
    const std::string documents = "file://" + (dir.path() / "Documents").string();
    EXPECT_EQ(desktop.openedURLs(), std::vector<std::string>{documents});
    EXPECT_TRUE(logged("Opening a Finder window at " + documents));

    // The recents search does not exist here: home it is.
    finderDefaults.remove("NewWindowTarget");
    run(ActionSpec::system(SystemCommand::openFinder));
    const std::string recents = "file://" + std::string(FinderTarget::recentsPath);
    EXPECT_TRUE(logged("Could not open " + recents + "; falling back to home"));
    EXPECT_EQ(desktop.openedURLs().back(), "file://" + dir.path().string());
}

#include "ActionKit/ActionRunner.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

class ActionRunnerTest : public ::testing::Test {
protected:
    void SetUp() override {
        log = DiagnosticLog::make(dir.path(), scheduler);
        Log::setSink([this](LogLevel, std::string_view category, std::string_view message) {
            logged.push_back(std::string(category) + ": " + std::string(message));
        });
    }
    void TearDown() override { Log::setSink(nullptr); }

    std::vector<std::string> notes() {
        log->flush();
        std::vector<std::string> lines;
        std::istringstream in(log->contents());
        for (std::string line; std::getline(in, line);) lines.push_back(line.substr(24));
        return lines;
    }

    TempDir dir;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log;
    std::vector<std::string> logged;
};

} // namespace

TEST_F(ActionRunnerTest, EveryRunIsLoggedAndNotedWithItsDisplayString) {
    ActionRunner runner(*log);
    runner.run(ActionSpec::window(WindowCommand::nextDisplay));
    runner.run(ActionSpec::fans(FanPreset::boost25));
    runner.run(ActionSpec::revealFile("~/Documents/report.pdf"));
    EXPECT_EQ(notes(), (std::vector<std::string>{"[action] running Move to Next Display",
                                                 "[action] running Fans at Boost 25%",
                                                 "[action] running Reveal report.pdf"}));
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ(logged[0], "action: Running Move to Next Display");
}

TEST_F(ActionRunnerTest, ServiceActionsGoToTheirClosuresWithTheirPayload) {
    ActionRunner runner(*log);
    std::vector<std::string> calls;
    runner.onToggleAwake = [&] { calls.push_back("awake"); };
    runner.onPomodoro = [&](PomodoroAction a) { calls.push_back("pomodoro " + std::string(rawValue(a))); };
    runner.onShowClipboard = [&] { calls.push_back("clipboard"); };
    runner.onShowSelectionBar = [&] { calls.push_back("selection"); };
    runner.onShowNotepad = [&] { calls.push_back("notepad"); };
    runner.onFans = [&](FanPreset p) { calls.push_back("fans " + std::string(rawValue(p))); };

    runner.run(ActionSpec::toggleAwake());
    runner.run(ActionSpec::pomodoro(PomodoroAction::skipPhase));
    runner.run(ActionSpec::showClipboardHistory());
    runner.run(ActionSpec::showSelectionBar());
    runner.run(ActionSpec::showNotepad());
    runner.run(ActionSpec::fans(FanPreset::toggleBoost));
    EXPECT_EQ(calls, (std::vector<std::string>{"awake", "pomodoro skipPhase", "clipboard", "selection", "notepad",
                                               "fans toggleBoost"}));
}

TEST_F(ActionRunnerTest, UnsetClosuresMeanTheActionDoesNothingButTheNote) {
    ActionRunner runner(*log);
    runner.run(ActionSpec::toggleAwake());
    runner.run(ActionSpec::showNotepad());
    EXPECT_EQ(notes(), (std::vector<std::string>{"[action] running Toggle Keep Awake", "[action] running Show notepad"}));
}

TEST_F(ActionRunnerTest, ActionsWithoutACollaboratorYetAreSaidSoAndCanBeTakenOver) {
    ActionRunner runner(*log);
    runner.run(ActionSpec::system(SystemCommand::quitApplication));
    EXPECT_EQ(logged.back(), "action: 'Quit application' (system) cannot be carried out by this build yet");

    std::vector<std::string> taken;
    runner.onUnavailable = [&](const ActionSpec& action) { taken.emplace_back(action.caseName()); };
    runner.run(ActionSpec::window(WindowCommand::leftHalf));
    runner.run(ActionSpec::sendKeystroke(HotkeySpec{8, Modifiers::command}));
    runner.run(ActionSpec::launchOrActivate("org.gnome.Terminal"));
    runner.run(ActionSpec::openURL(*URL::fromString("https://example.org/")));
    runner.run(ActionSpec::revealFile("/tmp"));
    runner.run(ActionSpec::system(SystemCommand::openFinder));
    runner.run(ActionSpec::toggleAwake());
    EXPECT_EQ(taken, (std::vector<std::string>{"window", "sendKeystroke", "launchOrActivate", "openURL", "revealFile",
                                               "system"}));
}

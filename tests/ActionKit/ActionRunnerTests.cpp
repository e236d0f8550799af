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

TEST_F(ActionRunnerTest, ActionsWithoutACollaboratorYetAreSaidSo) {
    ActionRunner runner(*log);
    int awake = 0;
    runner.onToggleAwake = [&] { ++awake; };
    const ActionSpec actions[] = {
        ActionSpec::window(WindowCommand::leftHalf),
        ActionSpec::sendKeystroke(HotkeySpec{8, Modifiers::command}),
        ActionSpec::launchOrActivate("org.gnome.Terminal"),
        ActionSpec::openURL(*URL::fromString("https://example.org/")),
        ActionSpec::revealFile("/tmp"),
        ActionSpec::system(SystemCommand::quitApplication),
        ActionSpec::toggleAwake(),
    };
    for (const auto& action : actions) runner.run(action);
    std::vector<std::string> said;
    for (const auto& line : logged) {
        if (line.find("cannot be carried out") != std::string::npos) said.push_back(line);
    }
    EXPECT_EQ(said, (std::vector<std::string>{
                        "action: 'Left Half' (window) cannot be carried out by this build yet",
                        "action: 'Send ⌘C' (sendKeystroke) cannot be carried out by this build yet",
                        "action: 'Open org.gnome.Terminal' (launchOrActivate) cannot be carried out by this build yet",
                        "action: 'Open https://example.org/' (openURL) cannot be carried out by this build yet",
                        "action: 'Reveal tmp' (revealFile) cannot be carried out by this build yet",
                        "action: 'Quit application' (system) cannot be carried out by this build yet",
                    }));
    EXPECT_EQ(awake, 1);
}

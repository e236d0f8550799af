#include "ActionKit/ActionRunner.h"

#include "ActionKit/AppLauncher.h"
#include "ActionKit/KeystrokeSender.h"
#include "ActionKit/SystemCommandRunner.h"
#include "CoreKit/Log.h"

namespace tavrick {

namespace {
template <class... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

template <class... Args>
void callIfSet(const std::function<void(Args...)>& closure, Args... args) {
    if (closure) closure(args...);
}
} // namespace

ActionRunner::ActionRunner(ActionEnvironment environment, WindowManager& windows)
    : env_(std::move(environment)), windows_(windows) {}

void ActionRunner::run(const ActionSpec& action) {
    const std::string display = action.displayString();
    Log::action.info("Running %s", display.c_str());
    env_.log.note("action", "running " + display);

    std::visit(Overloaded{
                   [&](const ActionSpec::Window& c) { runWindowCommand(c.command); },
                   [&](const ActionSpec::SendKeystroke& c) { KeystrokeSender::send(env_, c.keystroke); },
                   [&](const ActionSpec::LaunchOrActivate& c) { AppLauncher::launchOrActivate(env_, c.bundleID); },
                   [&](const ActionSpec::OpenURL& c) { AppLauncher::open(env_, c.url); },
                   [&](const ActionSpec::RevealFile& c) { AppLauncher::reveal(env_, c.path); },
                   [&](const ActionSpec::ToggleAwake&) { callIfSet(onToggleAwake); },
                   [&](const ActionSpec::System& c) { SystemCommandRunner::run(env_, c.command); },
                   [&](const ActionSpec::Pomodoro& c) { callIfSet(onPomodoro, c.action); },
                   [&](const ActionSpec::ShowClipboardHistory&) { callIfSet(onShowClipboard); },
                   [&](const ActionSpec::ShowSelectionBar&) { callIfSet(onShowSelectionBar); },
                   [&](const ActionSpec::ShowNotepad&) { callIfSet(onShowNotepad); },
                   [&](const ActionSpec::Fans& c) { callIfSet(onFans, c.preset); },
               },
               action.value);
}

void ActionRunner::runWindowCommand(WindowCommand command) {
    auto frontmost = env_.workspace.frontmostApplication();
    if (!frontmost) return;
    // A window command is meant for the window the user was working in; the program's own
    // panels are never its target.
    if (frontmost->processIdentifier == env_.ownProcessIdentifier) {
        Log::action.notice("Ignoring window command: Tavrick itself is frontmost");
        return;
    }
    windows_.apply(command, frontmost->processIdentifier, ScreenSnapshot::current(env_.screens));
}

} // namespace tavrick

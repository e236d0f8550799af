#include "ActionKit/ActionRunner.h"

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

ActionRunner::ActionRunner(DiagnosticLog& log) : log_(log) {}

void ActionRunner::run(const ActionSpec& action) {
    const std::string display = action.displayString();
    Log::action.info("Running %s", display.c_str());
    log_.note("action", "running " + display);

    auto unavailable = [&] {
        Log::action.notice("'%s' (%s) cannot be carried out by this build yet", display.c_str(),
                           std::string(action.caseName()).c_str());
    };

    std::visit(Overloaded{
                   [&](const ActionSpec::Window&) { unavailable(); },
                   [&](const ActionSpec::SendKeystroke&) { unavailable(); },
                   [&](const ActionSpec::LaunchOrActivate&) { unavailable(); },
                   [&](const ActionSpec::OpenURL&) { unavailable(); },
                   [&](const ActionSpec::RevealFile&) { unavailable(); },
                   [&](const ActionSpec::ToggleAwake&) { callIfSet(onToggleAwake); },
                   [&](const ActionSpec::System&) { unavailable(); },
                   [&](const ActionSpec::Pomodoro& c) { callIfSet(onPomodoro, c.action); },
                   [&](const ActionSpec::ShowClipboardHistory&) { callIfSet(onShowClipboard); },
                   [&](const ActionSpec::ShowSelectionBar&) { callIfSet(onShowSelectionBar); },
                   [&](const ActionSpec::ShowNotepad&) { callIfSet(onShowNotepad); },
                   [&](const ActionSpec::Fans& c) { callIfSet(onFans, c.preset); },
               },
               action.value);
}

} // namespace tavrick

#pragma once

#include "ActionKit/ActionEnvironment.h"
#include "ActionKit/WindowManager.h"
#include "CoreKit/Models.h"

#include <functional>

namespace tavrick {

// The one place where a fired mapping becomes an effect. Every road (hotkey, trackpad gesture,
// mouse gesture, menu item) ends here, on the main thread. What belongs to another service is
// handed on through a closure the coordinator installs; a closure left unset means the action
// does nothing. Failures are logged, never returned.
class ActionRunner {
public:
    ActionRunner(ActionEnvironment environment, WindowManager& windows);

    void run(const ActionSpec& action);

    std::function<void()> onToggleAwake;
    std::function<void(PomodoroAction)> onPomodoro;
    std::function<void()> onShowClipboard;
    std::function<void()> onShowSelectionBar;
    std::function<void()> onShowNotepad;
    std::function<void(FanPreset)> onFans;

    const ActionEnvironment& environment() const { return env_; }

private:
    void runWindowCommand(WindowCommand command);

    ActionEnvironment env_;
    WindowManager& windows_;
};

} // namespace tavrick

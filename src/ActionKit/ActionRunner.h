#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Models.h"

#include <functional>

namespace tavrick {

// The one place where a fired mapping becomes an effect. Every road (hotkey, trackpad gesture,
// mouse gesture, menu item) ends here, on the main thread. What belongs to another service is
// handed on through a closure the coordinator installs; a closure left unset means the action
// does nothing.
class ActionRunner {
public:
    explicit ActionRunner(DiagnosticLog& log);

    void run(const ActionSpec& action);

    std::function<void()> onToggleAwake;
    std::function<void(PomodoroAction)> onPomodoro;
    std::function<void()> onShowClipboard;
    std::function<void()> onShowSelectionBar;
    std::function<void()> onShowNotepad;
    std::function<void(FanPreset)> onFans;

    // Window commands, keystrokes, launching and opening, revealing files and system commands are
    // carried out by collaborators that this build does not have yet; until they exist the
    // runner logs what it could not do.

private:
    DiagnosticLog& log_;
};

} // namespace tavrick

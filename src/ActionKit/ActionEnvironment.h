#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/WindowServer.h"
#include "CoreKit/Workspace.h"

#include <cstdint>
#include <filesystem>
#include <functional>

namespace tavrick {

// What the actions reach out to: the session's applications, the desktop's opener, the event
// stream for keystrokes, the window server, and the few facts about this process they need.
struct ActionEnvironment {
    DiagnosticLog& log;
    Workspace& workspace;
    DesktopLauncher& launcher;
    EventSystem& events;
    const ScreenSource& screens;
    const WindowList& windowList;
    // The file manager's preference domain ("com.apple.finder"), read afresh on each use.
    const PreferenceStore& finderDefaults;
    std::filesystem::path home;
    // This process, which a window command or a quit must never target.
    std::int32_t ownProcessIdentifier = 0;
    std::function<bool()> isAccessibilityTrusted;
};

} // namespace tavrick

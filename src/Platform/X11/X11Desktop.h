#pragma once

#include "ActionKit/WindowAccessibility.h"
#include "CoreKit/WindowServer.h"
#include "CoreKit/Workspace.h"
#include "Platform/X11/X11Geometry.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class X11Connection;

// The X11 desktop as the window logic sees it: applications from the managed windows' process
// ids (or their class alone when a client does not give its process), the one in front from `_NET_ACTIVE_WINDOW`, screens from RandR monitors less the docks'
// struts, and windows moved through the window manager by their outer frame. Coordinates are
// turned into the logic's own at this edge. Safe from any thread; every call is a round trip.
class X11Desktop final : public Workspace, public ScreenSource, public WindowList, public WindowAccessibility {
public:
    // The process identifier of an application whose windows do not say their process
    // (`_NET_WM_PID` missing): it is known by its window class alone, and `application(noProcess)`
    // acts on the active window when that is such a window. It is never activated or ended by it.
    static constexpr std::int32_t noProcess = 0;
    // How long a move or resize waits for the window manager to carry it out.
    static constexpr double defaultSettleSeconds = 0.5;

    // `applicationFolders` are searched for a desktop entry named like a window's class.
    X11Desktop(std::shared_ptr<X11Connection> connection, std::vector<std::filesystem::path> applicationFolders);
    ~X11Desktop() override;

    // The folders desktop entries live in, from the XDG variables.
    static std::vector<std::filesystem::path> defaultApplicationFolders();

    std::optional<RunningApplication> frontmostApplication() const override;
    std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) const override;
    bool activate(std::int32_t processIdentifier) override;
    bool terminate(std::int32_t processIdentifier) override;

    std::vector<ScreenInfo> screens() const override;
    std::vector<WindowListEntry> onScreenWindows() const override;

    std::unique_ptr<AccessibilityApplication> application(std::int32_t processIdentifier) override;

    // Monitors in root coordinates, the primary one first.
    std::vector<XRect> monitors() const;
    // Every application with a managed window, oldest first.
    std::vector<RunningApplication> allApplications() const;

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

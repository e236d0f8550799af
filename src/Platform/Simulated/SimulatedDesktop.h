#pragma once

#include "ActionKit/WindowAccessibility.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/RawValue.h"
#include "CoreKit/WindowServer.h"
#include "CoreKit/Workspace.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

enum class SimulatedPermission { granted, denied, notDetermined };

std::string_view rawValue(SimulatedPermission state);
template <>
std::optional<SimulatedPermission> fromRaw<SimulatedPermission>(std::string_view raw);

// How one simulated window answers the accessibility interface.
struct SimulatedWindowBehaviour {
    bool refusesSize = false;
    bool refusesPosition = false;
    bool clampsToScreen = false;
    bool readFails = false;
    bool operator==(const SimulatedWindowBehaviour&) const = default;
};

// The desktop a headless run works on: displays, running applications with their windows, the
// one in front, what the workspace was asked to open, and the two privacy permissions. It plays
// the window server, the workspace and the accessibility interface at once, and it misbehaves on
// request the way real applications do: a window that refuses a size, clamps itself to its
// screen, cannot be read, or belongs to an application that hangs.
//
// Window frames are kept as the accessibility interface reports them (origin top-left of the
// first display, y down); screens as the displays report them (origin bottom-left, y up).
// Everything is safe from any thread.
class SimulatedDesktop final : public Workspace,
                               public DesktopLauncher,
                               public ScreenSource,
                               public WindowList,
                               public WindowAccessibility {
public:
    // What the platform waits for an unresponsive application unless told otherwise.
    static constexpr double defaultMessagingTimeout = 6.0;

    using WindowBehaviour = SimulatedWindowBehaviour;

    struct Window {
        std::uint64_t id = 0;
        std::string title;
        Rect frame;  // accessibility coordinates
        WindowBehaviour behaviour;
    };

    struct Application {
        std::int32_t pid = 0;
        std::string bundleID;
        std::string name;
        std::vector<Window> windows = {};
        // The focused window's index in `windows`.
        std::optional<std::size_t> focusedWindow = std::nullopt;
        // The focused element is something other than a window (a sheet's button, say).
        bool focusIsNotWindow = false;
        // Nothing: the attribute cannot be read.
        std::optional<bool> enhancedUserInterface = false;
        // Every accessibility call to the application takes this long before it answers.
        double hangSeconds = 0;
    };

    struct Installed {
        std::string bundleID;
        std::string name;
        std::string applicationURL;
        // The window a launch opens with, when any.
        std::optional<Rect> firstWindow = std::nullopt;
    };

    SimulatedDesktop();
    ~SimulatedDesktop() override;
    SimulatedDesktop(const SimulatedDesktop&) = delete;
    SimulatedDesktop& operator=(const SimulatedDesktop&) = delete;

    // Two displays of different sizes side by side, a few applications with a window each (one in
    // front), the file manager, this program (`ownPid`, no window) and one installed application
    // that is not running.
    static void seedDefault(SimulatedDesktop& desktop, std::int32_t ownPid);

    // ---- Workspace ----
    std::optional<RunningApplication> frontmostApplication() const override;
    // Every running application, oldest first.
    std::vector<RunningApplication> allApplications() const;
    std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) const override;
    bool activate(std::int32_t processIdentifier) override;
    bool terminate(std::int32_t processIdentifier) override;

    // ---- DesktopLauncher ----
    std::optional<std::string> applicationURL(const std::string& bundleIdentifier) const override;
    void openApplication(const std::string& applicationURL,
                         std::function<void(std::optional<std::string>)> completion) override;
    // A file URL whose file does not exist fails, as on a real desktop; so does any URL given to
    // `failOpening`.
    std::optional<std::string> open(const URL& url) override;
    std::optional<std::string> reveal(const std::filesystem::path& path) override;

    // ---- ScreenSource, WindowList ----
    std::vector<ScreenInfo> screens() const override;
    std::vector<WindowListEntry> onScreenWindows() const override;

    // ---- WindowAccessibility ----
    std::unique_ptr<AccessibilityApplication> application(std::int32_t processIdentifier) override;

    // ---- Scripting ----
    void setScreens(std::vector<ScreenInfo> screens);
    // Adds a running application; it does not come to the front by itself. Its pid, or the one
    // given when not 0.
    std::int32_t addApplication(Application application);
    void install(Installed installed);
    // A window for `pid`, focused when it is the first; its id.
    std::uint64_t addWindow(std::int32_t pid, std::string title, Rect accessibilityFrame,
                            WindowBehaviour behaviour = {});
    void setWindowBehaviour(std::uint64_t windowID, WindowBehaviour behaviour);
    void setFocusedWindow(std::int32_t pid, std::optional<std::size_t> index, bool focusIsNotWindow = false);
    void setEnhancedUserInterface(std::int32_t pid, std::optional<bool> value);
    void setHang(std::int32_t pid, double seconds);
    // Something else on screen, such as the desktop itself or a small helper window.
    void addWindowListEntry(WindowListEntry entry);
    void failOpening(const std::string& url, std::string reason);
    // How the desktop passes the time an application takes; a real sleep unless replaced.
    void setWaiter(std::function<void(double seconds)> waiter);

    std::optional<Application> applicationInfo(std::int32_t pid) const;
    std::optional<Rect> windowFrame(std::uint64_t windowID) const;
    // The focused window of the frontmost application, in accessibility coordinates.
    std::optional<Rect> frontmostWindowFrame() const;
    // The user dragging that window by its title bar: the window manager moves it by the offset,
    // which is no accessibility write. False when there is no such window.
    bool moveFrontmostWindow(double dx, double dy);

    // Every accessibility write in order: "size 720 875", "position 0 25",
    // "enhancedUserInterface false", each prefixed with the pid ("4101 size 720 875").
    std::vector<std::string> accessibilityWrites() const;
    // Every write counts; only while recording (the default) is it also kept as text.
    std::size_t accessibilityWriteCount() const;
    void setRecordsWrites(bool records);
    // Time spent waiting for applications in total, and the messaging time-outs asked for.
    double waitedSeconds() const;
    std::vector<double> messagingTimeouts() const;
    std::vector<std::string> openedURLs() const;
    std::vector<std::string> revealedPaths() const;
    std::vector<std::string> launchedBundleIDs() const;
    std::vector<std::string> activatedBundleIDs() const;
    std::vector<std::string> terminatedBundleIDs() const;
    void clearRecords();

    // ---- Permissions ----
    SimulatedPermission accessibilityPermission() const;
    SimulatedPermission inputMonitoringPermission() const;
    void setAccessibilityPermission(SimulatedPermission state);
    void setInputMonitoringPermission(SimulatedPermission state);
    bool isAccessibilityTrusted() const;
    // 0 granted, 1 denied, 2 not determined.
    int listenAccess() const;
    // The system's requests: counted; nobody answers them in a headless session.
    void promptForAccessibility();
    bool requestListenAccess();
    std::size_t accessibilityPrompts() const;
    std::size_t listenAccessRequests() const;
    // Called, on the thread that made the change, after either permission changed.
    void setOnPermissionsChange(std::function<void()> onChange);
    // Called, on the thread that made the change, with the application that came to the front.
    void setOnActivate(std::function<void(const RunningApplication&)> onActivate);

    // ---- The state file ----
    // From now on the whole state is written atomically to `path` whenever it changes, on a
    // serial queue of `scheduler` (one write for a burst of changes).
    void writeStateTo(std::filesystem::path path, Scheduler& scheduler);
    // The state file's text for the current state.
    std::string stateJSON() const;
    // Waits for a write already asked for. Not from the writing queue.
    void flushState();
    // Another simulated device's part of the state (the pasteboard, say), under `key`; it is read
    // under the desktop's lock, so it must not call back into the desktop. `noteStateChange` asks
    // for a rewrite after that device changed.
    void addStateSection(std::string key, std::function<nlohmann::json()> section);
    void noteStateChange();

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

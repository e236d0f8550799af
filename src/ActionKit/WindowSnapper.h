#pragma once

#include "ActionKit/SnapZone.h"
#include "ActionKit/WindowAccessibility.h"
#include "ActionKit/WindowManager.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/EventTap.h"
#include "CoreKit/WindowServer.h"
#include "CoreKit/Workspace.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tavrick {

// What the snapper listens to and reads: the session's mouse stream, the application in front,
// its focused window, and the displays.
struct SnapperEnvironment {
    EventSystem& events;
    Scheduler& scheduler;
    const Workspace& workspace;
    WindowAccessibility& accessibility;
    const ScreenSource& screens;
    // This process: a drag of its own windows is never snapped.
    std::int32_t ownProcessIdentifier = 0;
};

// Snaps a window dragged to a screen edge or corner. Nothing hooks other applications' windows:
// the snapper listens to the left button only and infers a window drag from the focused window
// of the application in front moving under a held button. While the drag is at a zone it asks
// for a preview (`onPreview` with the zone's frame, nothing to take it away); releasing there
// moves the window to that frame through the window manager.
//
// The tap is listen-only, so a click is never delayed or changed; its thread copies the location
// and posts to the main queue, where all state lives.
class WindowSnapper {
public:
    static constexpr const char* tapLabel = "window-snap";
    // Left mouse down, up and dragged.
    static constexpr EventMask eventMask = 0x46;
    // Shorter than a window command's, since it runs in the middle of a drag.
    static constexpr double messagingTimeout = 0.15;
    // How far the window's origin must move before a press counts as a window drag.
    static constexpr double moveThreshold = 2.0;

    using Configuration = SnapZoneDetector::Configuration;

    WindowSnapper(SnapperEnvironment environment, WindowManager& windows, Configuration configuration = {});
    ~WindowSnapper();
    WindowSnapper(const WindowSnapper&) = delete;
    WindowSnapper& operator=(const WindowSnapper&) = delete;

    // Main thread. The frame of the zone under the dragged window, or nothing to hide the preview.
    std::function<void(std::optional<Rect>)> onPreview;

    // Throws `EventTapError` when the session refuses the tap. Does nothing while running.
    void start();
    // Ends a drag in progress without moving anything and takes the preview away.
    void stop();
    bool isRunning() const { return tap_ != nullptr; }

    // One mouse event, on the main thread; the location has the origin at the top-left of the
    // first display, y downward, as the event stream reports it.
    void handle(EventType type, Point screenLocation);

    std::optional<Rect> dragStartWindowFrame() const { return dragStartWindowFrame_; }
    bool isDraggingWindow() const { return isDraggingWindow_; }
    std::optional<SnapZone> armedZone() const { return armedZone_; }
    std::optional<Rect> armedScreen() const { return armedScreen_; }
    const Configuration& configuration() const { return configuration_; }

private:
    std::optional<Rect> frontmostWindowFrame();
    void updateZone(Point location);
    void apply(SnapZone zone);
    void reset();

    SnapperEnvironment env_;
    WindowManager& windows_;
    Configuration configuration_;
    std::unique_ptr<EventTap> tap_;
    // Events already posted by a tap that has since stopped are dropped.
    std::shared_ptr<std::uint64_t> generation_ = std::make_shared<std::uint64_t>(0);

    std::optional<Rect> dragStartWindowFrame_;
    bool isDraggingWindow_ = false;
    std::optional<SnapZone> armedZone_;
    std::optional<Rect> armedScreen_;
    // The displays as they were when the button went down; a drag does not outlive a change of
    // displays, and reading them on every motion would cost a round trip each.
    std::vector<ScreenInfo> dragScreens_;
};

} // namespace tavrick

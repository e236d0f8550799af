#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/EventTap.h"
#include "CoreKit/Models.h"
#include "MouseGestureKit/StrokeRecogniser.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Holding the right button and drawing a shape runs the mapping bound to it. The press is
// swallowed while the shape is drawn; when no bound shape comes of it the click is put back at
// the press, so that a right click stays a right click. The tap exists only while the engine is
// switched on and at least one mouse-gesture mapping is enabled: with none, the right button is
// never intercepted at all.
class MouseGestureEngine {
public:
    using OnGesture = std::function<void(const Mapping&)>;
    using OnNote = std::function<void(const std::string&)>;

    static constexpr const char* tapLabel = "mouse-gestures";
    // Right button down, up and dragged.
    static constexpr EventMask eventMask = eventMaskBit(EventType::rightMouseDown) |
                                           eventMaskBit(EventType::rightMouseUp) |
                                           eventMaskBit(EventType::rightMouseDragged);

    MouseGestureEngine(EventSystem& events, Scheduler& scheduler,
                       double watchdogInterval = EventTap::defaultWatchdogInterval);
    ~MouseGestureEngine();
    MouseGestureEngine(const MouseGestureEngine&) = delete;
    MouseGestureEngine& operator=(const MouseGestureEngine&) = delete;

    // Keeps the enabled mouse-gesture mappings; starts the tap when there are some and the engine
    // is switched on, otherwise stops it.
    void update(const std::vector<Mapping>& mappings);
    void setMasterEnabled(bool enabled);
    void setFrontmostApp(std::optional<std::string> bundleID);
    // Standing down: presses are not taken, so that a recorder can read the drag itself.
    void setSuspended(bool suspended);
    bool isSuspended() const;
    bool isHoldingPress() const;
    bool isRunning() const;
    void stop();

    // On the main queue.
    void setOnGesture(OnGesture onGesture);
    // On whichever thread noted.
    void setOnNote(OnNote onNote);

    // The first candidate bound to the frontmost application, else the first bound everywhere.
    static std::optional<Mapping> match(const std::vector<GestureDirection>& strokes,
                                        const std::vector<Mapping>& mappings,
                                        const std::optional<std::string>& frontmost);

    // What the tap calls for each event; nothing swallows it. Public so that a benchmark can drive
    // it the way the tap does.
    std::optional<Event> handle(EventType type, const Event& event);

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

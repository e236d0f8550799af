#pragma once

#include "CoreKit/EventTap.h"
#include "CoreKit/Geometry.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavrick {

// Listens, never swallows: says when a selection may just have been made (a drag, a double
// click, a shift-click, select-all, shift with a navigation key) and when the bar should go
// (a click, a scroll, typing).
class SelectionWatcher {
public:
    enum class Reaction { look, dismiss, ignore };

    static constexpr const char* tapLabel = "selection-watcher";
    // Left mouse down and up, key down, scroll wheel.
    static constexpr EventMask eventMask = 0x400406;
    static constexpr double minimumDragDistance = 4.0;
    static constexpr std::uint64_t shiftFlag = 0x20000;
    static constexpr std::uint64_t commandFlag = 1ull << 20;

    explicit SelectionWatcher(EventSystem& events);
    ~SelectionWatcher();
    SelectionWatcher(const SelectionWatcher&) = delete;
    SelectionWatcher& operator=(const SelectionWatcher&) = delete;

    // Called on the tap's thread; they hop to the main queue themselves.
    std::function<void(std::string description)> onPossibleSelection;
    std::function<void()> onDismiss;

    // Throws EventTapError when the session refuses the tap (no permission).
    void start();
    void stop();
    bool isRunning() const;

    static Reaction reaction(EventType type, std::uint64_t flags, std::int64_t keyCode, std::int64_t clickCount,
                             bool dragged);
    static bool isNavigationKey(std::int64_t keyCode);

private:
    void handle(EventType type, const Event& event);

    EventSystem& events_;
    mutable std::mutex lock_;
    std::unique_ptr<EventTap> tap_;
    std::optional<Point> dragOrigin_;
};

} // namespace tavrick

#pragma once

#include "ActionKit/ScreenSnapshot.h"
#include "ActionKit/WindowAccessibility.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Models.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace tavrick {

// Moves and resizes the focused window of another application. Every accessibility call runs on
// one serial queue, in the order asked, so that quick repeated commands never interleave their
// writes; the main thread never waits for it.
class WindowManager {
public:
    static constexpr const char* queueLabel = "com.orvell.tavrick.windows";
    static constexpr double messagingTimeout = 0.5;

    WindowManager(WindowAccessibility& accessibility, Scheduler& scheduler);
    // Lets commands already asked for finish first.
    ~WindowManager();
    WindowManager(const WindowManager&) = delete;
    WindowManager& operator=(const WindowManager&) = delete;

    // Returns at once; the work happens on the queue.
    void apply(WindowCommand command, std::int32_t pid, ScreenSnapshot screens);

    // The work itself. On the queue only (the manager's, or a caller that owns the manager alone).
    void performApply(WindowCommand command, std::int32_t pid, const ScreenSnapshot& screens);

    // The frame (bottom-left coordinates) the next restore would give `pid`. On the queue only.
    std::optional<Rect> restoreFrame(std::int32_t pid) const;

    SerialQueue& queue() { return *queue_; }

private:
    std::optional<Rect> resolveTarget(WindowCommand command, const Rect& current, const ScreenSnapshot& screens,
                                      std::int32_t pid);
    void set(const Rect& accessibilityFrame, AccessibilityWindow& window, AccessibilityApplication& app);

    WindowAccessibility& accessibility_;
    std::shared_ptr<SerialQueue> queue_;
    // One level of memory per process: the frame before its most recent move.
    std::map<std::int32_t, Rect> restoreFrames_;
};

} // namespace tavrick

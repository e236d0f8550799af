#pragma once

#include "CoreKit/Geometry.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// One display: its whole frame, and the part windows may use (without the menu bar and the
// dock). Both with the origin at the bottom-left of the first display, y upward.
struct ScreenInfo {
    Rect frame;
    Rect visibleFrame;
    bool operator==(const ScreenInfo&) const = default;
};

// The displays, the first one first: it holds the menu bar and defines the coordinates.
class ScreenSource {
public:
    virtual ~ScreenSource() = default;
    virtual std::vector<ScreenInfo> screens() const = 0;
};

// One on-screen window as the window server lists it; any field may be missing, as in the
// platform's own list. `bounds` has its origin at the top-left of the first display, y downward.
struct WindowListEntry {
    std::optional<std::string> ownerName;
    std::optional<std::int64_t> layer;
    std::optional<Rect> bounds;
    bool operator==(const WindowListEntry&) const = default;
};

class WindowList {
public:
    virtual ~WindowList() = default;
    // Windows on screen, front to back, without the desktop's own elements.
    virtual std::vector<WindowListEntry> onScreenWindows() const = 0;
};

} // namespace tavrick

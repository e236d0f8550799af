#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/WindowServer.h"

#include <vector>

namespace tavrick {

// The screens as they were when a command was asked for: taken on the main thread and handed to
// the window queue, so that the queue never asks the window server about displays itself.
struct ScreenSnapshot {
    // Each screen's visible frame, in the session's order.
    std::vector<Rect> visibleFrames;
    // The height of the first screen's whole frame; 0 without screens.
    double primaryHeight = 0;

    static ScreenSnapshot current(const ScreenSource& source);
    static ScreenSnapshot of(const std::vector<ScreenInfo>& screens);

    bool operator==(const ScreenSnapshot&) const = default;
};

} // namespace tavrick

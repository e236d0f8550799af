#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/Models.h"
#include "CoreKit/WindowServer.h"

#include <optional>
#include <span>
#include <vector>

namespace tavrick {

// Window geometry without any platform. Frames are in screen coordinates with the origin at the
// bottom-left of the first display and y upward, so "top" is at maxY; the accessibility
// interface counts y downward from the top-left, and the flips convert at the edges.
namespace WindowLayout {

// The frame `command` gives a window of `currentSize` on a screen whose visible frame is
// `visibleFrame`. Nothing is rounded. Nothing for the commands that need more than one screen
// (next and previous display, restore).
std::optional<Rect> frame(WindowCommand command, const Rect& visibleFrame, Size currentSize);

// The same flip both ways: x and size stay, y becomes primaryHeight - maxY.
Rect cocoaFrame(const Rect& accessibilityFrame, double primaryHeight);
Rect accessibilityFrame(const Rect& cocoaFrame, double primaryHeight);

// The height of the first screen's whole frame, which the flips turn around; 0 without screens.
double primaryDisplayHeight(std::span<const ScreenInfo> screens);

// The screen sharing the largest area with `rect`; a tie goes to the earlier screen, and a rect
// that overlaps no screen with positive area gives nothing.
std::optional<std::size_t> screen(const Rect& containing, std::span<const Rect> among);

} // namespace WindowLayout

} // namespace tavrick

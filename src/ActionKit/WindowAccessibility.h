#pragma once

#include "CoreKit/Geometry.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace tavrick {

// Another application's windows, reached the way assistive software reaches them. Positions are
// in accessibility coordinates: the origin at the top-left of the first display, y downward.
// Every call may fail (the application refuses, has quit, or does not answer in time), and a
// failed read gives nothing. Used only from the window queue.
class AccessibilityWindow {
public:
    virtual ~AccessibilityWindow() = default;
    virtual std::optional<Point> position() = 0;
    virtual std::optional<Size> size() = 0;
    // False when the application refused; a refused value leaves the window where it was.
    virtual bool setPosition(Point position) = 0;
    virtual bool setSize(Size size) = 0;
};

class AccessibilityApplication {
public:
    virtual ~AccessibilityApplication() = default;
    // Bounds every later call to this application, so that a hung one cannot stall the caller
    // for the platform's much longer default.
    virtual void setMessagingTimeout(double seconds) = 0;
    // The window with keyboard focus; nothing when there is none, when it cannot be read, or when
    // the focused element is not a window.
    virtual std::unique_ptr<AccessibilityWindow> focusedWindow() = 0;
    // The screen-reader mode some tools switch on in other applications; nothing when unreadable.
    virtual std::optional<bool> enhancedUserInterface() = 0;
    virtual bool setEnhancedUserInterface(bool on) = 0;
};

class WindowAccessibility {
public:
    virtual ~WindowAccessibility() = default;
    virtual std::unique_ptr<AccessibilityApplication> application(std::int32_t processIdentifier) = 0;
};

} // namespace tavrick

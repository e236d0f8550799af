#pragma once

#include "CoreKit/EventSystem.h"
#include "Platform/X11/X11Geometry.h"

#include <functional>
#include <memory>
#include <string>

namespace tavrick {

class X11Connection;

// A window of this program's own, above everything, that hears the right button as any
// application's window does: pressed, dragged with it, let go. The self-tests put it where they
// draw, so that a press the gesture engine passes on has somewhere real to land.
// Its events reach `onEvent` on a thread of its own, as the program's events in root coordinates.
class X11PadWindow {
public:
    static std::unique_ptr<X11PadWindow> open(std::unique_ptr<X11Connection> connection, XRect frame,
                                              std::function<void(const Event&)> onEvent, std::string* failure);
    ~X11PadWindow();
    X11PadWindow(const X11PadWindow&) = delete;
    X11PadWindow& operator=(const X11PadWindow&) = delete;

    // Returns once everything the server sent this window before the call has been handled; false
    // when that took longer than `timeoutSeconds` or the server is gone.
    bool sync(double timeoutSeconds = 2.0);

    struct Core;

private:
    explicit X11PadWindow(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

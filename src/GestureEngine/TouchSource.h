#pragma once

#include "GestureEngine/TouchFrame.h"

#include <functional>

namespace tavrick {

// Where touch frames come from: the trackpad service, a touchpad device, or a recording. The
// engine runs over any of them.
class TouchSource {
public:
    using OnFrame = std::function<void(const TouchFrame&)>;

    virtual ~TouchSource() = default;
    // Throws a `std::runtime_error` whose text is the user-facing reason. Does nothing while running.
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    // Called on the source's own thread for every frame, the empty frame of a lift included.
    virtual void setOnFrame(OnFrame onFrame) = 0;
    virtual OnFrame onFrame() const = 0;
};

} // namespace tavrick

#pragma once

#include "ActionKit/SnapPreview.h"
#include "Platform/X11/X11Geometry.h"

#include <xcb/xcb.h>

#include <functional>
#include <memory>

namespace tavrick {

class X11Connection;

// The snap preview on an X server: an override-redirect window (the window manager never frames,
// focuses or lists it) that takes no input, stacked above everything. Without a compositor
// nothing is translucent, so it is drawn as a ring in the accent colour that leaves the windows
// under it visible; a compositor gets the opacity asked for as `_NET_WM_WINDOW_OPACITY`.
class X11SnapPreview final : public SnapPreviewSurface {
public:
    static constexpr const char* windowName = "Tavrick snap preview";
    static constexpr std::uint32_t accentColour = 0x3d7eff;
    static constexpr int ringWidth = 6;

    // `firstMonitor` gives the monitor the logic's coordinates start from, read when a frame is
    // placed.
    X11SnapPreview(std::shared_ptr<X11Connection> connection, std::function<XRect()> firstMonitor);
    ~X11SnapPreview() override;
    X11SnapPreview(const X11SnapPreview&) = delete;
    X11SnapPreview& operator=(const X11SnapPreview&) = delete;

    void appear(const Rect& frame) override;
    void fade(double alpha, double seconds) override;
    void moveTo(const Rect& frame, double seconds) override;
    void orderOut() override;

    xcb_window_t window() const { return window_; }
    // The root rectangle a frame (origin bottom-left, y up) covers.
    static XRect rootRect(const Rect& frame, XRect firstMonitor);

private:
    void place(const Rect& frame);
    bool ensureWindow();

    std::shared_ptr<X11Connection> x_;
    std::function<XRect()> firstMonitor_;
    xcb_window_t window_ = 0;
    bool hasShape_ = false;
};

} // namespace tavrick

#include "Platform/X11/X11SnapPreview.h"

#include "ActionKit/WindowLayout.h"
#include "CoreKit/Log.h"
#include "Platform/X11/X11Connection.h"

#include <xcb/shape.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace tavrick {

X11SnapPreview::X11SnapPreview(std::shared_ptr<X11Connection> connection, std::function<XRect()> firstMonitor)
    : x_(std::move(connection)), firstMonitor_(std::move(firstMonitor)) {}

X11SnapPreview::~X11SnapPreview() {
    if (!window_ || !x_->isAlive()) return;
    std::lock_guard guard(x_->lock);
    xcb_destroy_window(x_->xcb(), window_);
    xcb_flush(x_->xcb());
}

XRect X11SnapPreview::rootRect(const Rect& frame, XRect firstMonitor) {
    const Rect top = WindowLayout::accessibilityFrame(frame, firstMonitor.height);
    const auto x = X11Geometry::rootX(top.minX(), firstMonitor);
    const auto y = X11Geometry::rootY(top.minY(), firstMonitor);
    const auto right = X11Geometry::rootX(top.maxX(), firstMonitor);
    const auto bottom = X11Geometry::rootY(top.maxY(), firstMonitor);
    return XRect{x, y, std::max(1, right - x), std::max(1, bottom - y)};
}

bool X11SnapPreview::ensureWindow() {
    if (window_) return true;
    if (!x_->isAlive()) return false;
    std::lock_guard guard(x_->lock);
    auto* c = x_->xcb();
    window_ = xcb_generate_id(c);
    const std::uint32_t values[] = {accentColour, 1};
    auto cookie = xcb_create_window_checked(c, XCB_COPY_FROM_PARENT, window_, x_->root(), 0, 0, 1, 1, 0,
                                            XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                                            XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    if (xcb_generic_error_t* error = xcb_request_check(c, cookie)) {
        std::free(error);
        Log::windows.notice("The snap preview window could not be made");
        window_ = 0;
        return false;
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(std::strlen(windowName)), windowName);
    const char wmClass[] = "tavrick-snap-preview\0Tavrick";
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, sizeof wmClass,
                        wmClass);
    const xcb_atom_t type = x_->atom("_NET_WM_WINDOW_TYPE_NOTIFICATION");
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, x_->atom("_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM, 32, 1, &type);
    if (auto* ext = xcb_get_extension_data(c, &xcb_shape_id); ext && ext->present) {
        hasShape_ = true;
        // No input region: every click goes through to the windows below.
        xcb_shape_rectangles(c, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_INPUT, XCB_CLIP_ORDERING_UNSORTED, window_, 0, 0, 0,
                             nullptr);
    }
    xcb_flush(c);
    return true;
}

void X11SnapPreview::place(const Rect& frame) {
    const XRect r = rootRect(frame, firstMonitor_ ? firstMonitor_() : XRect{});
    std::lock_guard guard(x_->lock);
    auto* c = x_->xcb();
    const std::uint32_t values[] = {static_cast<std::uint32_t>(r.x), static_cast<std::uint32_t>(r.y),
                                    static_cast<std::uint32_t>(r.width), static_cast<std::uint32_t>(r.height),
                                    XCB_STACK_MODE_ABOVE};
    xcb_configure_window(c, window_,
                         XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH |
                             XCB_CONFIG_WINDOW_HEIGHT | XCB_CONFIG_WINDOW_STACK_MODE,
                         values);
    if (hasShape_) {
        // A ring: the window's edges only, so that what the window will cover stays readable.
        const auto w = static_cast<std::uint16_t>(r.width);
        const auto h = static_cast<std::uint16_t>(r.height);
        const auto t = static_cast<std::uint16_t>(std::min<int>(ringWidth, std::min(r.width, r.height) / 2 + 1));
        const std::array<xcb_rectangle_t, 4> ring{{{0, 0, w, t},
                                                    {0, static_cast<std::int16_t>(h - t), w, t},
                                                    {0, 0, t, h},
                                                    {static_cast<std::int16_t>(w - t), 0, t, h}}};
        xcb_shape_rectangles(c, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, XCB_CLIP_ORDERING_UNSORTED, window_, 0, 0,
                             ring.size(), ring.data());
    }
    xcb_flush(c);
}

void X11SnapPreview::appear(const Rect& frame) {
    if (!ensureWindow()) return;
    place(frame);
    std::lock_guard guard(x_->lock);
    xcb_map_window(x_->xcb(), window_);
    xcb_flush(x_->xcb());
}

void X11SnapPreview::fade(double alpha, double) {
    // Without a compositor there is no fade to show; the end opacity is what a compositor reads.
    if (!window_ || !x_->isAlive()) return;
    const double clamped = std::clamp(alpha * 0.45, 0.0, 1.0);
    const auto opacity = static_cast<std::uint32_t>(std::lround(clamped * 0xffffffffu));
    std::lock_guard guard(x_->lock);
    xcb_change_property(x_->xcb(), XCB_PROP_MODE_REPLACE, window_, x_->atom("_NET_WM_WINDOW_OPACITY"),
                        XCB_ATOM_CARDINAL, 32, 1, &opacity);
    xcb_flush(x_->xcb());
}

void X11SnapPreview::moveTo(const Rect& frame, double) {
    if (!window_ || !x_->isAlive()) return;
    place(frame);
}

void X11SnapPreview::orderOut() {
    if (!window_ || !x_->isAlive()) return;
    std::lock_guard guard(x_->lock);
    xcb_unmap_window(x_->xcb(), window_);
    xcb_flush(x_->xcb());
}

} // namespace tavrick

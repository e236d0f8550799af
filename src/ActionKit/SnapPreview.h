#pragma once

#include "CoreKit/Geometry.h"

#include <functional>
#include <memory>
#include <optional>

namespace tavrick {

// The surface a snap preview is drawn on: a translucent, borderless panel above every window
// that never takes the mouse or the focus. Frames have the origin at the bottom-left, y upward.
// Main thread only.
class SnapPreviewSurface {
public:
    virtual ~SnapPreviewSurface() = default;
    // Puts the surface at `frame`, hidden (alpha 0), and brings it in front without focus.
    virtual void appear(const Rect& frame) = 0;
    // Changes the surface's opacity over `seconds`.
    virtual void fade(double alpha, double seconds) = 0;
    // Moves a shown surface to `frame` over `seconds`.
    virtual void moveTo(const Rect& frame, double seconds) = 0;
    // Takes it off the screen.
    virtual void orderOut() = 0;
};

// The overlay that shows where a dragged window will land. The surface is made on first use.
class SnapPreviewWindow {
public:
    static constexpr double moveSeconds = 0.09;
    static constexpr double fadeInSeconds = 0.12;
    static constexpr double fadeOutSeconds = 0.1;

    using SurfaceFactory = std::function<std::unique_ptr<SnapPreviewSurface>()>;
    explicit SnapPreviewWindow(SurfaceFactory makeSurface);

    void show(const Rect& frame);
    void hide();

    bool isVisible() const { return visible_; }
    std::optional<Rect> frame() const { return visible_ ? std::optional<Rect>(frame_) : std::nullopt; }

private:
    SurfaceFactory makeSurface_;
    std::unique_ptr<SnapPreviewSurface> window_;
    bool visible_ = false;
    Rect frame_;
};

} // namespace tavrick

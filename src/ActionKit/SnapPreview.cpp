#include "ActionKit/SnapPreview.h"

namespace tavrick {

SnapPreviewWindow::SnapPreviewWindow(SurfaceFactory makeSurface) : makeSurface_(std::move(makeSurface)) {}

void SnapPreviewWindow::show(const Rect& frame) {
    if (!window_ && makeSurface_) window_ = makeSurface_();
    if (!window_) return;
    if (visible_) {
        // Sliding from zone to zone reads as one preview following the pointer.
        if (frame == frame_) return;
        window_->moveTo(frame, moveSeconds);
    } else {
        window_->appear(frame);
        window_->fade(1.0, fadeInSeconds);
    }
    frame_ = frame;
    visible_ = true;
}

void SnapPreviewWindow::hide() {
    if (!visible_ || !window_) return;
    window_->fade(0.0, fadeOutSeconds);
    window_->orderOut();
    visible_ = false;
}

} // namespace tavrick

#include "Platform/Simulated/SimulatedSnapPreview.h"

#include <nlohmann/json.hpp>

namespace tavrick {

class SimulatedSnapPreview::Surface final : public SnapPreviewSurface {
public:
    explicit Surface(std::shared_ptr<SimulatedSnapPreview> screen) : screen_(std::move(screen)) {}

    void appear(const Rect& frame) override {
        screen_->change([&](State& s) {
            s.visible = true;
            s.frame = frame;
            s.alpha = 0;
            ++s.appearances;
        });
    }
    // Nothing animates here: the end of the animation is what is recorded.
    void fade(double alpha, double) override {
        screen_->change([&](State& s) { s.alpha = alpha; });
    }
    void moveTo(const Rect& frame, double) override {
        screen_->change([&](State& s) {
            s.frame = frame;
            ++s.moves;
        });
    }
    void orderOut() override {
        screen_->change([](State& s) {
            s.visible = false;
            s.alpha = 0;
        });
    }

private:
    std::shared_ptr<SimulatedSnapPreview> screen_;
};

std::shared_ptr<SimulatedSnapPreview> SimulatedSnapPreview::make() {
    return std::shared_ptr<SimulatedSnapPreview>(new SimulatedSnapPreview());
}

std::unique_ptr<SnapPreviewSurface> SimulatedSnapPreview::makeSurface() {
    return std::make_unique<Surface>(shared_from_this());
}

SimulatedSnapPreview::State SimulatedSnapPreview::state() const {
    std::lock_guard guard(lock_);
    return state_;
}

nlohmann::json SimulatedSnapPreview::stateSection() const {
    const auto s = state();
    nlohmann::json frame = nullptr;
    if (s.frame) {
        frame = {{"x", s.frame->minX()}, {"y", s.frame->minY()}, {"width", s.frame->size.width},
                 {"height", s.frame->size.height}};
    }
    return {{"visible", s.visible}, {"frame", frame}, {"alpha", s.alpha}, {"appearances", s.appearances},
            {"moves", s.moves}};
}

void SimulatedSnapPreview::setOnChange(std::function<void()> onChange) {
    std::lock_guard guard(lock_);
    onChange_ = std::move(onChange);
}

void SimulatedSnapPreview::change(const std::function<void(State&)>& edit) {
    std::function<void()> tell;
    {
        std::lock_guard guard(lock_);
        edit(state_);
        tell = onChange_;
    }
    if (tell) tell();
}

} // namespace tavrick

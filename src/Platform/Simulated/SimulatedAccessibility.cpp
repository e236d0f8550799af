#include "Platform/Simulated/SimulatedDesktopCore.h"

#include <cstdio>

// The accessibility side of the simulated desktop: elements for applications and their focused
// windows, which answer late or not at all when their application hangs.

namespace tavrick {

namespace {

using Core = SimulatedDesktop::Core;

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

// Answers for one accessibility call: waits as long as the application takes, up to the time-out,
// and tells whether the call got through.
bool passTime(const std::shared_ptr<Core>& core, std::int32_t pid, double timeout) {
    double hang = 0;
    std::function<void(double)> waiter;
    {
        std::lock_guard lock(core->mutex);
        auto* a = core->app(pid);
        if (!a) return false;
        hang = a->hangSeconds;
        waiter = core->waiter;
    }
    if (hang <= 0) return true;
    const double waited = std::min(hang, timeout);
    if (waiter) waiter(waited);
    std::lock_guard lock(core->mutex);
    core->waited += waited;
    return hang <= timeout && core->app(pid) != nullptr;
}

class SimWindowElement final : public AccessibilityWindow {
public:
    SimWindowElement(std::shared_ptr<Core> core, std::int32_t pid, std::uint64_t id, std::shared_ptr<double> timeout)
        : core_(std::move(core)), pid_(pid), id_(id), timeout_(std::move(timeout)) {}

    std::optional<Point> position() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w || w->behaviour.readFails) return std::nullopt;
        return w->frame.origin;
    }
    std::optional<Size> size() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w || w->behaviour.readFails) return std::nullopt;
        return w->frame.size;
    }
    bool setPosition(Point position) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w) return false;
        core_->recordWrite(pid_, "position", [&] { return number(position.x) + " " + number(position.y); });
        if (w->behaviour.refusesPosition) return false;
        w->frame.origin = position;
        if (w->behaviour.clampsToScreen) core_->clamp(*w);
        core_->changedLocked();
        return true;
    }
    bool setSize(Size size) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w) return false;
        core_->recordWrite(pid_, "size", [&] { return number(size.width) + " " + number(size.height); });
        if (w->behaviour.refusesSize) return false;
        w->frame.size = size;
        if (w->behaviour.clampsToScreen) core_->clamp(*w);
        core_->changedLocked();
        return true;
    }

private:
    std::shared_ptr<Core> core_;
    std::int32_t pid_;
    std::uint64_t id_;
    std::shared_ptr<double> timeout_;
};

class SimApplicationElement final : public AccessibilityApplication {
public:
    SimApplicationElement(std::shared_ptr<Core> core, std::int32_t pid) : core_(std::move(core)), pid_(pid) {}

    void setMessagingTimeout(double seconds) override {
        *timeout_ = seconds;
        std::lock_guard lock(core_->mutex);
        core_->timeouts.push_back(seconds);
    }
    std::unique_ptr<AccessibilityWindow> focusedWindow() override {
        if (!passTime(core_, pid_, *timeout_)) return nullptr;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        if (!a || a->focusIsNotWindow || !a->focusedWindow || *a->focusedWindow >= a->windows.size()) return nullptr;
        return std::make_unique<SimWindowElement>(core_, pid_, a->windows[*a->focusedWindow].id, timeout_);
    }
    std::optional<bool> enhancedUserInterface() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        return a ? a->enhancedUserInterface : std::nullopt;
    }
    bool setEnhancedUserInterface(bool on) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        if (!a) return false;
        core_->recordWrite(pid_, "enhancedUserInterface", [&] { return std::string(on ? "true" : "false"); });
        a->enhancedUserInterface = on;
        return true;
    }

private:
    std::shared_ptr<Core> core_;
    std::int32_t pid_;
    std::shared_ptr<double> timeout_ = std::make_shared<double>(SimulatedDesktop::defaultMessagingTimeout);
};

} // namespace

std::unique_ptr<AccessibilityApplication> SimulatedDesktop::application(std::int32_t pid) {
    return std::make_unique<SimApplicationElement>(core_, pid);
}

} // namespace tavrick

#include "ActionKit/WindowManager.h"

#include "ActionKit/WindowLayout.h"
#include "CoreKit/Log.h"

#include <algorithm>

namespace tavrick {

WindowManager::WindowManager(WindowAccessibility& accessibility, Scheduler& scheduler)
    : accessibility_(accessibility), queue_(scheduler.makeSerialQueue(queueLabel, QoS::userInitiated)) {}

WindowManager::~WindowManager() {
    if (!queue_->isCurrent()) queue_->sync([] {});
}

void WindowManager::apply(WindowCommand command, std::int32_t pid, ScreenSnapshot screens) {
    queue_->async([this, command, pid, screens = std::move(screens)] { performApply(command, pid, screens); });
}

void WindowManager::performApply(WindowCommand command, std::int32_t pid, const ScreenSnapshot& screens) {
    auto app = accessibility_.application(pid);
    if (!app) {
        Log::windows.notice("No focused window for pid %d", pid);
        return;
    }
    app->setMessagingTimeout(messagingTimeout);
    auto window = app->focusedWindow();
    if (!window) {
        Log::windows.notice("No focused window for pid %d", pid);
        return;
    }
    auto position = window->position();
    auto size = position ? window->size() : std::nullopt;
    if (!position || !size) {
        Log::windows.notice("Could not read window frame for pid %d", pid);
        return;
    }
    const Rect current = WindowLayout::cocoaFrame(Rect{*position, *size}, screens.primaryHeight);
    auto target = resolveTarget(command, current, screens, pid);
    if (!target) return;
    if (command != WindowCommand::restore) restoreFrames_[pid] = current;
    const Rect axTarget = WindowLayout::accessibilityFrame(*target, screens.primaryHeight);
    set(axTarget, *window, *app);
    if (Log::windows.isEnabled(LogLevel::notice)) {
        Log::windows.notice("%s: window of pid %d to x %.10g, y %.10g, width %.10g, height %.10g",
                            std::string(displayName(command)).c_str(), pid, target->minX(), target->minY(),
                            target->size.width, target->size.height);
    }
}

std::optional<Rect> WindowManager::resolveTarget(WindowCommand command, const Rect& current,
                                                 const ScreenSnapshot& screens, std::int32_t pid) {
    const auto& frames = screens.visibleFrames;
    switch (command) {
    case WindowCommand::nextDisplay:
    case WindowCommand::previousDisplay: {
        if (frames.size() < 2) return std::nullopt;
        auto index = WindowLayout::screen(current, frames);
        if (!index) return std::nullopt;
        const auto count = static_cast<long>(frames.size());
        const long step = command == WindowCommand::nextDisplay ? 1 : -1;
        const auto destination = static_cast<std::size_t>(((static_cast<long>(*index) + step) + count) % count);
        const Rect& src = frames[*index];
        const Rect& dst = frames[destination];
        // The window keeps its relative place; it is not clamped, and may overhang a smaller screen.
        const double relX = (current.minX() - src.minX()) / src.size.width;
        const double relY = (current.minY() - src.minY()) / src.size.height;
        const double width = std::min(current.size.width, dst.size.width);
        const double height = std::min(current.size.height, dst.size.height);
        return Rect{{dst.minX() + relX * dst.size.width, dst.minY() + relY * dst.size.height}, {width, height}};
    }
    case WindowCommand::restore: {
        auto it = restoreFrames_.find(pid);
        if (it == restoreFrames_.end()) {
            Log::windows.notice("Nothing to restore for pid %d", pid);
            return std::nullopt;
        }
        Rect frame = it->second;
        restoreFrames_.erase(it);
        return frame;
    }
    default: {
        if (frames.empty()) return std::nullopt;
        const std::size_t index = WindowLayout::screen(current, frames).value_or(0);
        return WindowLayout::frame(command, frames[index], current.size);
    }
    }
}

void WindowManager::set(const Rect& target, AccessibilityWindow& window, AccessibilityApplication& app) {
    // Screen-reader mode makes some applications animate or refuse geometry; it goes off for the
    // writes and back on after. An unreadable setting counts as off.
    const bool enhanced = app.enhancedUserInterface().value_or(false);
    if (enhanced) app.setEnhancedUserInterface(false);
    // Size first, so the window fits before it moves (a window too large for the destination is
    // clamped on the way); size again to correct what was clamped. Refusals are ignored.
    window.setSize(target.size);
    window.setPosition(target.origin);
    window.setSize(target.size);
    if (enhanced) app.setEnhancedUserInterface(true);
}

std::optional<Rect> WindowManager::restoreFrame(std::int32_t pid) const {
    auto it = restoreFrames_.find(pid);
    if (it == restoreFrames_.end()) return std::nullopt;
    return it->second;
}

} // namespace tavrick

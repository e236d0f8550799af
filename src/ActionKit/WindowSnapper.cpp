#include "ActionKit/WindowSnapper.h"

#include "ActionKit/ScreenSnapshot.h"
#include "ActionKit/WindowLayout.h"
#include "CoreKit/Log.h"

#include <cmath>
#include <string>

namespace tavrick {

namespace {

bool contains(const Rect& r, Point p) {
    return r.minX() <= p.x && p.x < r.maxX() && r.minY() <= p.y && p.y < r.maxY();
}

} // namespace

WindowSnapper::WindowSnapper(SnapperEnvironment environment, WindowManager& windows, Configuration configuration)
    : env_(environment), windows_(windows), configuration_(configuration) {}

WindowSnapper::~WindowSnapper() {
    ++*generation_;
    if (tap_) tap_->stop();
}

void WindowSnapper::start() {
    if (tap_) return;
    std::weak_ptr<std::uint64_t> weak = generation_;
    const std::uint64_t generation = *generation_;
    Scheduler& scheduler = env_.scheduler;
    auto tap = std::make_unique<EventTap>(
        env_.events, tapLabel, eventMask, TapOptions::listenOnly,
        [this, weak, generation, &scheduler](EventType type, const Event& event) -> std::optional<Event> {
            if (type == EventType::leftMouseDown || type == EventType::leftMouseUp || type == EventType::leftMouseDragged) {
                const Point location = event.location;
                scheduler.async([this, weak, generation, type, location] {
                    auto current = weak.lock();
                    if (!current || *current != generation) return;
                    handle(type, location);
                });
            }
            return event;
        });
    tap->start();  // throws; the snapper stays stopped
    tap_ = std::move(tap);
    Log::windows.notice("Window snapping started");
}

void WindowSnapper::stop() {
    const bool wasRunning = tap_ != nullptr;
    ++*generation_;
    if (tap_) tap_->stop();
    tap_.reset();
    reset();
    if (wasRunning) Log::windows.notice("Window snapping stopped");
}

void WindowSnapper::reset() {
    dragStartWindowFrame_.reset();
    armedZone_.reset();
    armedScreen_.reset();
    isDraggingWindow_ = false;
    dragScreens_.clear();
    if (onPreview) onPreview(std::nullopt);
}

void WindowSnapper::handle(EventType type, Point location) {
    switch (type) {
    case EventType::leftMouseDown:
        dragScreens_ = env_.screens.screens();
        dragStartWindowFrame_ = frontmostWindowFrame();
        isDraggingWindow_ = false;
        break;
    case EventType::leftMouseDragged: {
        if (!dragStartWindowFrame_) return;
        if (!isDraggingWindow_) {
            // The press may be on content, a scroll bar or a resize handle: nothing shows until
            // the window itself has moved.
            auto now = frontmostWindowFrame();
            if (!now) return;
            const double dx = std::fabs(now->origin.x - dragStartWindowFrame_->origin.x);
            const double dy = std::fabs(now->origin.y - dragStartWindowFrame_->origin.y);
            if (dx <= moveThreshold && dy <= moveThreshold) return;
            isDraggingWindow_ = true;
        }
        updateZone(location);
        break;
    }
    case EventType::leftMouseUp:
        if (isDraggingWindow_ && armedZone_) apply(*armedZone_);
        reset();
        break;
    default: break;
    }
}

std::optional<Rect> WindowSnapper::frontmostWindowFrame() {
    auto front = env_.workspace.frontmostApplication();
    if (!front || front->processIdentifier == env_.ownProcessIdentifier) return std::nullopt;
    auto app = env_.accessibility.application(front->processIdentifier);
    if (!app) return std::nullopt;
    app->setMessagingTimeout(messagingTimeout);
    auto window = app->focusedWindow();
    if (!window) return std::nullopt;
    auto position = window->position();
    if (!position) return std::nullopt;
    auto size = window->size();
    if (!size) return std::nullopt;
    return WindowLayout::cocoaFrame(Rect{*position, *size}, WindowLayout::primaryDisplayHeight(dragScreens_));
}

void WindowSnapper::updateZone(Point location) {
    const Point p{location.x, WindowLayout::primaryDisplayHeight(dragScreens_) - location.y};
    const ScreenInfo* screen = nullptr;
    for (const auto& candidate : dragScreens_) {
        if (contains(candidate.frame, p)) {
            screen = &candidate;
            break;
        }
    }
    // Beyond every display (the pointer pressed against an outer edge): the main display.
    if (!screen && !dragScreens_.empty()) screen = &dragScreens_.front();
    if (!screen) return;
    const Rect visible = screen->visibleFrame;
    const auto zone = SnapZoneDetector::zone(p, visible, configuration_);
    // The hot path: the same zone on the same screen asks for nothing new.
    if (zone == armedZone_ && armedScreen_ && *armedScreen_ == visible) return;
    armedZone_ = zone;
    armedScreen_ = visible;
    if (!onPreview) return;
    if (!zone) {
        onPreview(std::nullopt);
    } else {
        onPreview(WindowLayout::frame(command(*zone), visible, Size{0, 0}));
    }
}

void WindowSnapper::apply(SnapZone zone) {
    auto front = env_.workspace.frontmostApplication();
    if (!front) {
        // The window (and its application with it) went away under the pointer.
        Log::windows.notice("Nothing to snap: no application is in front any more");
        return;
    }
    if (front->processIdentifier == env_.ownProcessIdentifier) return;
    const auto snapCommand = command(zone);
    Log::windows.notice("Snapping to %s", std::string(displayName(snapCommand)).c_str());
    windows_.apply(snapCommand, front->processIdentifier, ScreenSnapshot::current(env_.screens));
}

} // namespace tavrick

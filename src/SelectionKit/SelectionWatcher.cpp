#include "SelectionKit/SelectionWatcher.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace tavrick {

namespace {

// The arrows, then Home, End, Page Up and Page Down.
constexpr std::array<std::int64_t, 8> navigationKeys{123, 124, 125, 126, 115, 119, 116, 121};

} // namespace

SelectionWatcher::SelectionWatcher(EventSystem& events) : events_(events) {}

SelectionWatcher::~SelectionWatcher() { stop(); }

bool SelectionWatcher::isNavigationKey(std::int64_t keyCode) {
    for (auto key : navigationKeys)
        if (key == keyCode) return true;
    return false;
}

SelectionWatcher::Reaction SelectionWatcher::reaction(EventType type, std::uint64_t flags, std::int64_t keyCode,
                                                      std::int64_t clickCount, bool dragged) {
    const bool shift = (flags & shiftFlag) != 0;
    switch (type) {
    case EventType::leftMouseDown:
    case EventType::scrollWheel: return Reaction::dismiss;
    case EventType::leftMouseUp:
        // A double or triple click selects a word or a line, and a shift-click extends.
        return dragged || shift || clickCount > 1 ? Reaction::look : Reaction::ignore;
    case EventType::keyDown:
        if ((flags & commandFlag) && keyCode == 0) return Reaction::look;  // select all
        if (!shift) return Reaction::dismiss;
        return isNavigationKey(keyCode) ? Reaction::look : Reaction::dismiss;
    default: return Reaction::ignore;
    }
}

void SelectionWatcher::start() {
    std::unique_lock guard(lock_);
    if (tap_ && tap_->isRunning()) return;
    auto tap = std::make_unique<EventTap>(events_, tapLabel, eventMask, TapOptions::listenOnly,
                                          [this](EventType type, const Event& event) -> std::optional<Event> {
                                              handle(type, event);
                                              return event;
                                          });
    guard.unlock();
    tap->start();  // throws EventTapError, leaving no tap behind
    guard.lock();
    tap_ = std::move(tap);
}

void SelectionWatcher::stop() {
    std::unique_ptr<EventTap> tap;
    {
        std::lock_guard guard(lock_);
        tap = std::move(tap_);
        dragOrigin_.reset();
    }
    if (tap) tap->stop();
}

bool SelectionWatcher::isRunning() const {
    std::lock_guard guard(lock_);
    return tap_ && tap_->isRunning();
}

void SelectionWatcher::handle(EventType type, const Event& event) {
    bool dragged = false;
    double distance = 0;
    {
        std::lock_guard guard(lock_);
        if (type == EventType::leftMouseDown) {
            dragOrigin_ = event.location;
        } else if (type == EventType::leftMouseUp && dragOrigin_) {
            distance = std::hypot(event.location.x - dragOrigin_->x, event.location.y - dragOrigin_->y);
            dragged = distance >= minimumDragDistance;
        }
    }
    const auto keyCode = event.integerValueField(EventField::keyboardEventKeycode);
    const auto clicks = event.integerValueField(EventField::mouseEventClickState);
    switch (reaction(type, event.flags, keyCode, clicks, dragged)) {
    case Reaction::dismiss:
        if (onDismiss) onDismiss();
        break;
    case Reaction::look: {
        if (!onPossibleSelection) break;
        std::string description;
        if (type == EventType::keyDown) {
            description = "key=" + std::to_string(keyCode);
        } else if (dragged) {
            char text[32];
            std::snprintf(text, sizeof text, "drag=%.0f", distance);
            description = text;
        } else {
            description = "clicks=" + std::to_string(clicks);
        }
        if (event.flags & shiftFlag) description += " shift";
        if (event.flags & commandFlag) description += " cmd";
        onPossibleSelection(description);
        break;
    }
    case Reaction::ignore: break;
    }
}

} // namespace tavrick

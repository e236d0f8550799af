#include "CoreKit/EventSystem.h"

namespace tavrick {

std::int64_t Event::integerValueField(EventField field) const {
    switch (field) {
    case EventField::mouseEventClickState: return clickState;
    case EventField::mouseEventButtonNumber: return buttonNumber;
    case EventField::keyboardEventAutorepeat: return autorepeat ? 1 : 0;
    case EventField::keyboardEventKeycode: return keyCode;
    case EventField::eventSourceUserData: return userData;
    }
    return 0;
}

void Event::setIntegerValueField(EventField field, std::int64_t value) {
    switch (field) {
    case EventField::mouseEventClickState: clickState = value; break;
    case EventField::mouseEventButtonNumber: buttonNumber = value; break;
    case EventField::keyboardEventAutorepeat: autorepeat = value != 0; break;
    // Key codes are 16 bits wide on the desktop too; the rest is dropped the same way.
    case EventField::keyboardEventKeycode: keyCode = static_cast<std::uint16_t>(value); break;
    case EventField::eventSourceUserData: userData = value; break;
    }
}

Event Event::keyboard(std::uint16_t keyCode, bool keyDown, std::uint64_t flags) {
    Event event;
    event.type = keyDown ? EventType::keyDown : EventType::keyUp;
    event.keyCode = keyCode;
    event.flags = flags;
    return event;
}

Event Event::mouse(EventType type, Point location, std::int64_t button) {
    Event event;
    event.type = type;
    event.location = location;
    event.buttonNumber = button;
    event.clickState = 1;
    return event;
}

std::optional<Event> EventSystem::makeMouseEvent(EventType type, Point location, std::int64_t button) {
    return Event::mouse(type, location, button);
}

Event Event::notice(EventType type) {
    Event event;
    event.type = type;
    return event;
}

bool EventSystem::postKeyPress(std::uint16_t keyCode, std::uint64_t flags) {
    auto down = makeKeyboardEvent(keyCode, true);
    auto up = makeKeyboardEvent(keyCode, false);
    if (!down || !up) return false;
    down->flags = up->flags = flags;
    post(*down);
    post(*up);
    return true;
}

} // namespace tavrick

#include "CoreKit/SyntheticEvents.h"

namespace tavrick::SyntheticEvents {

void mark(Event& event) {
    event.setIntegerValueField(EventField::eventSourceUserData, marker);
}

bool isOurs(const Event& event) {
    return event.integerValueField(EventField::eventSourceUserData) == marker;
}

} // namespace tavrick::SyntheticEvents

#include "CoreKit/EscapeRule.h"

#include <algorithm>

namespace tavrick::EscapeRule {

bool isClosable(std::string_view windowIdentifier) {
    return std::find(closableWindows.begin(), closableWindows.end(), windowIdentifier) != closableWindows.end();
}

bool shouldClose(const Context& context) {
    return context.keyCode == escapeKeyCode && !context.hasModifiers && !context.hasSheet &&
           !context.isRecordingShortcut && !context.hasMarkedText && context.windowIdentifier &&
           isClosable(*context.windowIdentifier);
}

} // namespace tavrick::EscapeRule

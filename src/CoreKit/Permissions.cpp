#include "CoreKit/Permissions.h"

namespace tavrick {

std::string_view rawValue(Permission permission) {
    return permission == Permission::accessibility ? "accessibility" : "inputMonitoring";
}

std::string_view displayName(Permission permission) {
    return permission == Permission::accessibility ? "Accessibility" : "Input Monitoring";
}

std::string_view rationale(Permission permission) {
    return permission == Permission::accessibility
               ? "Required for keyboard shortcuts. Also lets Tavrick move and resize windows and send keystrokes to other apps."
               : "Optional. Tavrick works without this once Accessibility is granted.";
}

} // namespace tavrick

#include "HotkeyEngine/HotkeyValidation.h"

#include <algorithm>

namespace tavrick {

std::optional<std::string_view> message(HotkeyValidation validation) {
    switch (validation) {
    case HotkeyValidation::valid: return std::nullopt;
    case HotkeyValidation::needsModifier:
        return "Add ⌘, ⌥ or ⌃. A shortcut without one would capture ordinary typing.";
    case HotkeyValidation::reservedBySystem: return "macOS reserves this combination.";
    }
    return std::nullopt;
}

namespace HotkeyRules {

bool isStandalone(std::uint16_t keyCode) {
    return std::find(standaloneKeys.begin(), standaloneKeys.end(), keyCode) != standaloneKeys.end();
}

bool isSystemReserved(const HotkeySpec& spec) {
    return std::find(systemReserved.begin(), systemReserved.end(), spec) != systemReserved.end();
}

HotkeyValidation validate(const HotkeySpec& spec, HotkeyPurpose purpose) {
    if (purpose == HotkeyPurpose::keystroke) return HotkeyValidation::valid;
    // A standalone key skips the reserved check too: none of the reserved ones is standalone.
    if (isStandalone(spec.keyCode)) return HotkeyValidation::valid;
    if (!spec.modifiers.isSafeForGlobalHotkey()) return HotkeyValidation::needsModifier;
    if (isSystemReserved(spec)) return HotkeyValidation::reservedBySystem;
    return HotkeyValidation::valid;
}

} // namespace HotkeyRules

} // namespace tavrick

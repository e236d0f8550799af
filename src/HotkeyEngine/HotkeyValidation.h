#pragma once

#include "CoreKit/Modifiers.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tavrick {

// Whether a key combination may be used, and why not.
enum class HotkeyValidation { valid, needsModifier, reservedBySystem };

// What the editor shows under the recorder; nothing for a valid combination.
std::optional<std::string_view> message(HotkeyValidation validation);

// What a recorded combination is for: a trigger fires a mapping from anywhere, so it must not
// capture ordinary typing; a keystroke is what a mapping sends, and any key will do.
enum class HotkeyPurpose { trigger, keystroke };

namespace HotkeyRules {

// Keys that do nothing on their own in other applications, so they need no modifier: F1 to F20,
// Home, End, Page Up and Page Down.
inline constexpr std::array<std::uint16_t, 24> standaloneKeys = {
    122, 120, 99, 118, 96, 97, 98, 100, 101, 109, 103, 111, 105, 107, 113, 106, 64, 79, 80, 90,
    115, 119, 116, 121,
};

// Combinations the system keeps for itself: ⌘Tab, ⌘⇧Tab, ⌘Space and ⌘Q.
inline constexpr std::array<HotkeySpec, 4> systemReserved = {
    HotkeySpec{48, Modifiers::command},
    HotkeySpec{48, Modifiers::command | Modifiers::shift},
    HotkeySpec{49, Modifiers::command},
    HotkeySpec{12, Modifiers::command},
};

bool isStandalone(std::uint16_t keyCode);
bool isSystemReserved(const HotkeySpec& spec);

HotkeyValidation validate(const HotkeySpec& spec, HotkeyPurpose purpose);

} // namespace HotkeyRules

} // namespace tavrick

#pragma once

#include "CoreKit/Modifiers.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace tavrick {

// The translation between X key symbols and modifier state and the program's own key codes and
// modifiers. Keys are matched by what they type, not where they sit, so a shortcut on "A" is the
// key that types an A on a French or German layout too.
namespace X11KeyMap {

// The program's key code for a key symbol; nothing for a symbol it has no code for.
std::optional<std::uint16_t> keyCode(std::uint32_t keysym);
// The key symbol a key code stands for (the lower-case letter for letters).
std::optional<std::uint32_t> keysym(std::uint16_t keyCode);
// The event flag of a modifier key's symbol (Shift, Control, Alt, Super, Caps Lock); 0 for others.
std::uint64_t modifierFlag(std::uint32_t keysym);

// Which X modifier bits the server's modifier mapping gives to each role. Shift, Lock and Control
// are fixed by the protocol; Alt, Super, Num Lock and Scroll Lock live on whichever of Mod1 to
// Mod5 holds their keys (0 when none does).
struct ModifierMasks {
    std::uint16_t alt = 0x08;
    std::uint16_t super = 0x40;
    std::uint16_t numLock = 0x10;
    std::uint16_t scrollLock = 0;

    bool operator==(const ModifierMasks&) const = default;
};

inline constexpr std::uint16_t shiftMask = 0x01;
inline constexpr std::uint16_t lockMask = 0x02;
inline constexpr std::uint16_t controlMask = 0x04;

// The masks for a modifier mapping given as, for each of the eight modifiers in protocol order,
// the key symbols of its keys.
ModifierMasks masksFromMapping(const std::vector<std::vector<std::uint32_t>>& symbolsPerModifier);

// Alt is option, Super is command, Control is control; the lock modifiers are dropped.
Modifiers modifiers(std::uint16_t state, const ModifierMasks& masks);
// Nothing when the combination cannot be expressed in X modifiers (the function key).
std::optional<std::uint16_t> state(Modifiers modifiers, const ModifierMasks& masks);
// The event flags of an X modifier state, Caps Lock included.
std::uint64_t eventFlags(std::uint16_t state, const ModifierMasks& masks);
// Every combination of the lock modifiers that exist (Caps Lock always, Num Lock and Scroll Lock
// where mapped), the empty one first, each once: a grab must be made with each of them or a
// shortcut stops working while Num Lock is on.
std::vector<std::uint16_t> lockCombinations(const ModifierMasks& masks);

} // namespace X11KeyMap

} // namespace tavrick

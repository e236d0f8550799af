#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace tavrick {

// The platform's event flag bits for the modifier keys (CGEventFlags and NSEvent flags agree).
namespace EventFlags {
inline constexpr std::uint64_t shift = 0x20000;
inline constexpr std::uint64_t control = 0x40000;
inline constexpr std::uint64_t option = 0x80000;
inline constexpr std::uint64_t command = 0x100000;
inline constexpr std::uint64_t function = 0x800000;
inline constexpr std::uint64_t capsLock = 0x10000;
} // namespace EventFlags

// An option set of modifier keys. The bit values are the on-disk form of a shortcut, so they never
// change: command 1, shift 2, option 4, control 8, function 16.
struct Modifiers {
    std::int64_t rawValue = 0;

    constexpr Modifiers() = default;
    constexpr explicit Modifiers(std::int64_t raw) : rawValue(raw) {}

    static const Modifiers command;
    static const Modifiers shift;
    static const Modifiers option;
    static const Modifiers control;
    static const Modifiers function;

    // Command, option, control or function: what makes a key combination safe to take globally.
    static constexpr std::int64_t globalHotkeyMask = 29;

    // Reads the modifier bits of event flags; every other bit (caps lock included) is dropped.
    static Modifiers fromCGFlags(std::uint64_t flags);
    std::uint64_t cgFlags() const;

    // "⌃⌥⇧⌘" order; the function bit is never shown.
    std::string symbolString() const;
    // Shift alone is not safe: it would take a plain capital letter from every application.
    bool isSafeForGlobalHotkey() const { return (rawValue & globalHotkeyMask) != 0; }

    constexpr bool isEmpty() const { return rawValue == 0; }
    constexpr bool contains(Modifiers other) const { return (rawValue & other.rawValue) == other.rawValue; }
    constexpr void insert(Modifiers other) { rawValue |= other.rawValue; }
    constexpr void remove(Modifiers other) { rawValue &= ~other.rawValue; }

    friend constexpr Modifiers operator|(Modifiers a, Modifiers b) { return Modifiers(a.rawValue | b.rawValue); }
    friend constexpr Modifiers operator&(Modifiers a, Modifiers b) { return Modifiers(a.rawValue & b.rawValue); }
    friend constexpr bool operator==(Modifiers, Modifiers) = default;
};

inline constexpr Modifiers Modifiers::command{1};
inline constexpr Modifiers Modifiers::shift{2};
inline constexpr Modifiers Modifiers::option{4};
inline constexpr Modifiers Modifiers::control{8};
inline constexpr Modifiers Modifiers::function{16};

// A key combination: a macOS virtual key code and the modifiers held with it.
struct HotkeySpec {
    std::uint16_t keyCode = 0;
    Modifiers modifiers;

    // The modifier symbols followed by the key's name on the current layout ("⌃⌥←", "⌘C").
    std::string displayString() const;

    // {"keyCode":49,"modifiers":9}: the modifiers as their plain raw number. Both keys required.
    nlohmann::json toJSON() const;
    static HotkeySpec fromJSON(const nlohmann::json& json);

    friend bool operator==(const HotkeySpec&, const HotkeySpec&) = default;
};

// Mixes one more hash into a running seed (the boost recipe).
inline void hashCombine(std::size_t& seed, std::size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
}

} // namespace tavrick

template <>
struct std::hash<tavrick::Modifiers> {
    std::size_t operator()(tavrick::Modifiers m) const noexcept { return std::hash<std::int64_t>{}(m.rawValue); }
};

template <>
struct std::hash<tavrick::HotkeySpec> {
    std::size_t operator()(const tavrick::HotkeySpec& h) const noexcept {
        // Key codes fit in 16 bits, so one word holds both fields without collisions in practice.
        return std::hash<std::uint64_t>{}(static_cast<std::uint64_t>(h.modifiers.rawValue) << 16 | h.keyCode);
    }
};

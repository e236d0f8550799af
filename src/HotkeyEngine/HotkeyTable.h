#pragma once

#include "CoreKit/Models.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

namespace tavrick {

// The enabled hotkey mappings by their key combination. The first enabled mapping in file order
// wins a shared combination; later ones are kept in `shadowed`, so they are reported rather than
// silently lost.
struct HotkeyTable {
    std::unordered_map<HotkeySpec, Mapping> entries;
    std::vector<Mapping> shadowed;

    HotkeyTable() = default;
    explicit HotkeyTable(const std::vector<Mapping>& mappings);

    std::size_t count() const { return entries.size(); }
    bool isEmpty() const { return entries.empty(); }

    // The mapping for a combination, without copying it; nothing when none is bound.
    const Mapping* find(const HotkeySpec& spec) const;
    // Exact matching: the key and the full modifier set. Event flags other than the five
    // modifiers (caps lock, device bits) are ignored.
    std::optional<Mapping> match(std::uint16_t keyCode, std::uint64_t cgFlags) const;
    std::optional<Mapping> match(std::uint16_t keyCode, Modifiers modifiers) const;

    friend bool operator==(const HotkeyTable&, const HotkeyTable&) = default;
};

} // namespace tavrick

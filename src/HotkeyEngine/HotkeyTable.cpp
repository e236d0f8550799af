#include "HotkeyEngine/HotkeyTable.h"

namespace tavrick {

HotkeyTable::HotkeyTable(const std::vector<Mapping>& mappings) {
    for (const auto& mapping : mappings) {
        if (!mapping.isEnabled) continue;
        const HotkeySpec* spec = mapping.trigger.asHotkey();
        if (!spec) continue;
        auto [it, inserted] = entries.try_emplace(*spec, mapping);
        // A record repeated word for word is one mapping, not a rival.
        if (!inserted && !(it->second == mapping)) shadowed.push_back(mapping);
    }
}

const Mapping* HotkeyTable::find(const HotkeySpec& spec) const {
    auto it = entries.find(spec);
    return it == entries.end() ? nullptr : &it->second;
}

std::optional<Mapping> HotkeyTable::match(std::uint16_t keyCode, std::uint64_t cgFlags) const {
    return match(keyCode, Modifiers::fromCGFlags(cgFlags));
}

std::optional<Mapping> HotkeyTable::match(std::uint16_t keyCode, Modifiers modifiers) const {
    if (const Mapping* mapping = find(HotkeySpec{keyCode, modifiers})) return *mapping;
    return std::nullopt;
}

} // namespace tavrick

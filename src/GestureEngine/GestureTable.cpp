#include "GestureEngine/GestureTable.h"

namespace tavrick {

GestureTable::GestureTable(const std::vector<Mapping>& mappings) {
    for (const auto& mapping : mappings) {
        if (!mapping.isEnabled) continue;
        const auto* spec = mapping.trigger.asGesture();
        if (!spec) continue;
        if (entries.contains(*spec)) {
            shadowed.push_back(mapping);
        } else {
            entries.emplace(*spec, mapping);
            order.push_back(*spec);
        }
    }
}

const Mapping* GestureTable::find(const GestureSpec& spec) const {
    auto found = entries.find(spec);
    return found == entries.end() ? nullptr : &found->second;
}

std::optional<Mapping> GestureTable::match(const GestureSpec& spec) const {
    if (const auto* mapping = find(spec)) return *mapping;
    return std::nullopt;
}

std::string GestureTable::describe() const {
    if (order.empty()) return "none";
    std::string text;
    for (const auto& spec : order) {
        if (!text.empty()) text += "; ";
        const auto& mapping = entries.at(spec);
        text += mapping.trigger.displayString() + " -> " + mapping.action.displayString();
    }
    return text;
}

} // namespace tavrick

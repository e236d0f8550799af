#include "CoreKit/Modifiers.h"

#include "CoreKit/JSONValue.h"
#include "CoreKit/KeyCodes.h"

#include <nlohmann/json.hpp>

#include <limits>

namespace tavrick {

namespace {

struct FlagBit {
    Modifiers modifier;
    std::uint64_t flag;
};

constexpr FlagBit flagBits[] = {
    {Modifiers::command, EventFlags::command}, {Modifiers::shift, EventFlags::shift},
    {Modifiers::option, EventFlags::option},   {Modifiers::control, EventFlags::control},
    {Modifiers::function, EventFlags::function},
};

} // namespace

Modifiers Modifiers::fromCGFlags(std::uint64_t flags) {
    Modifiers result;
    for (const auto& bit : flagBits) {
        if (flags & bit.flag) result.insert(bit.modifier);
    }
    return result;
}

std::uint64_t Modifiers::cgFlags() const {
    std::uint64_t flags = 0;
    for (const auto& bit : flagBits) {
        if (contains(bit.modifier)) flags |= bit.flag;
    }
    return flags;
}

std::string Modifiers::symbolString() const {
    std::string text;
    if (contains(control)) text += "⌃";
    if (contains(option)) text += "⌥";
    if (contains(shift)) text += "⇧";
    if (contains(command)) text += "⌘";
    return text;
}

std::string HotkeySpec::displayString() const {
    return modifiers.symbolString() + KeyCodes::name(keyCode);
}

nlohmann::json HotkeySpec::toJSON() const {
    return nlohmann::json{{"keyCode", keyCode}, {"modifiers", modifiers.rawValue}};
}

HotkeySpec HotkeySpec::fromJSON(const nlohmann::json& json) {
    const auto& object = JSONRead::object(json);
    HotkeySpec spec;
    spec.keyCode = static_cast<std::uint16_t>(
        JSONRead::integer(JSONRead::field(object, "keyCode"), "keyCode", 0, std::numeric_limits<std::uint16_t>::max()));
    spec.modifiers = Modifiers(JSONRead::integer(JSONRead::field(object, "modifiers"), "modifiers",
                                                 std::numeric_limits<std::int64_t>::min(),
                                                 std::numeric_limits<std::int64_t>::max()));
    return spec;
}

} // namespace tavrick

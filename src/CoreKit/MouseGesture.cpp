#include "CoreKit/MouseGesture.h"

#include "CoreKit/JSONValue.h"

#include <nlohmann/json.hpp>

#include <array>

namespace tavrick {

namespace {

struct DirectionInfo {
    GestureDirection direction;
    std::string_view raw;
    std::string_view name;
    std::string_view arrow;
};

constexpr std::array<DirectionInfo, 6> directions = {{
    {GestureDirection::up, "up", "Up", "↑"},
    {GestureDirection::down, "down", "Down", "↓"},
    {GestureDirection::left, "left", "Left", "←"},
    {GestureDirection::right, "right", "Right", "→"},
    {GestureDirection::expand, "expand", "Expand", "⤢"},
    {GestureDirection::contract, "contract", "Contract", "⤡"},
}};

constexpr std::array<GestureDirection, 6> allDirections = {
    GestureDirection::up,    GestureDirection::down,   GestureDirection::left,
    GestureDirection::right, GestureDirection::expand, GestureDirection::contract,
};

const DirectionInfo& info(GestureDirection direction) {
    return directions[static_cast<std::size_t>(direction)];
}

} // namespace

std::string_view rawValue(GestureDirection direction) {
    return info(direction).raw;
}

std::string_view displayName(GestureDirection direction) {
    return info(direction).name;
}

std::string_view arrow(GestureDirection direction) {
    return info(direction).arrow;
}

bool isCardinal(GestureDirection direction) {
    return direction == GestureDirection::up || direction == GestureDirection::down ||
           direction == GestureDirection::left || direction == GestureDirection::right;
}

template <>
std::optional<GestureDirection> fromRaw<GestureDirection>(std::string_view raw) {
    for (const auto& entry : directions) {
        if (entry.raw == raw) return entry.direction;
    }
    return std::nullopt;
}

template <>
std::span<const GestureDirection> allCases<GestureDirection>() {
    return allDirections;
}

bool MouseGestureSpec::isValid() const {
    if (strokes.empty() || strokes.size() > maximumStrokes) return false;
    for (auto stroke : strokes) {
        if (!isCardinal(stroke)) return false;
    }
    return true;
}

std::string MouseGestureSpec::symbols() const {
    std::string text;
    for (auto stroke : strokes) text += arrow(stroke);
    return text;
}

std::string MouseGestureSpec::displayString() const {
    return "Mouse " + symbols();
}

std::string MouseGestureSpec::spelledOut() const {
    std::string text;
    for (std::size_t i = 0; i < strokes.size(); ++i) {
        if (i > 0) text += ", then ";
        text += displayName(strokes[i]);
    }
    // Direction names are plain ASCII, so lower-casing byte by byte is exact.
    for (auto& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

nlohmann::json MouseGestureSpec::toJSON() const {
    auto list = nlohmann::json::array();
    for (auto stroke : strokes) list.push_back(std::string(rawValue(stroke)));
    return nlohmann::json{{"strokes", std::move(list)}};
}

MouseGestureSpec MouseGestureSpec::fromJSON(const nlohmann::json& json) {
    const auto& object = JSONRead::object(json);
    const auto& list = JSONRead::array(JSONRead::field(object, "strokes"), "strokes");
    MouseGestureSpec spec;
    spec.strokes.reserve(list.size());
    for (const auto& element : list) {
        auto raw = JSONRead::string(element, "strokes");
        auto direction = fromRaw<GestureDirection>(raw);
        if (!direction) throw JSONRead::invalidRawValue("GestureDirection", raw);
        spec.strokes.push_back(*direction);
    }
    return spec;
}

} // namespace tavrick

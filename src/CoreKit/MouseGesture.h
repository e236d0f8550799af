#pragma once

#include "CoreKit/Modifiers.h"
#include "CoreKit/RawValue.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// Where a swipe, pinch or mouse stroke goes. The raw values equal the case names and are the
// on-disk form.
enum class GestureDirection { up, down, left, right, expand, contract };

std::string_view rawValue(GestureDirection direction);
// The raw value with a capital first letter ("Left").
std::string_view displayName(GestureDirection direction);
// "↑", "↓", "←", "→", "⤢", "⤡".
std::string_view arrow(GestureDirection direction);
// Up, down, left and right; expand and contract are pinch directions.
bool isCardinal(GestureDirection direction);

template <>
std::optional<GestureDirection> fromRaw<GestureDirection>(std::string_view raw);
template <>
std::span<const GestureDirection> allCases<GestureDirection>();

// A shape drawn with the right mouse button, as up to three strokes.
struct MouseGestureSpec {
    std::vector<GestureDirection> strokes;

    static constexpr std::size_t maximumStrokes = 3;

    // One to three strokes, every one cardinal. Decoding does not check this: a stored shape the
    // recogniser can never draw is kept and simply never matches.
    bool isValid() const;
    // The arrows with nothing between ("↑←").
    std::string symbols() const;
    // "Mouse ↑←".
    std::string displayString() const;
    // "up, then left".
    std::string spelledOut() const;

    // {"strokes":["up","left"]}
    nlohmann::json toJSON() const;
    static MouseGestureSpec fromJSON(const nlohmann::json& json);

    friend bool operator==(const MouseGestureSpec&, const MouseGestureSpec&) = default;
};

} // namespace tavrick

template <>
struct std::hash<tavrick::MouseGestureSpec> {
    std::size_t operator()(const tavrick::MouseGestureSpec& spec) const noexcept {
        std::size_t seed = spec.strokes.size();
        for (auto stroke : spec.strokes) tavrick::hashCombine(seed, static_cast<std::size_t>(stroke));
        return seed;
    }
};

#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/SelectionModel.h"

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavrick {

// The bar and the result window as values: this build draws no window of its own for them, so
// whatever presents them (a terminal line, a test) reads these and is told of every change.

// The labels a button shows: "Copied" once the selection was copied on select.
std::string barButtonLabel(const SelectionAction& action, SelectionBarLabels labels, bool alreadyCopied);

struct SelectionBarState {
    bool isVisible = false;
    std::vector<SelectionAction> actions;
    SelectionAppearance appearance;
    bool alreadyCopied = false;
    Rect frame;
    // The selection the buttons act on; never logged.
    std::string text;
    std::optional<Rect> selectionBounds;
};

struct SelectionResultState {
    struct Working {
        std::string text;
        bool operator==(const Working&) const = default;
    };
    struct Answer {
        std::string text;
        bool operator==(const Answer&) const = default;
    };
    struct Failed {
        std::string text;
        bool operator==(const Failed&) const = default;
    };
    using State = std::variant<Working, Answer, Failed>;

    bool isVisible = false;
    std::string title;
    State state = Working{};
    Rect frame;
    // The answer window's one button.
    static constexpr const char* copyButtonTitle = "Copy this answer";
};

// Placement, pure: the screen's visible frame is given.
namespace SelectionPlacement {
inline constexpr double barGap = 8;
inline constexpr double resultOffset = 12;
inline constexpr double resultMargin = 6;

Size barSize(std::size_t buttons, const SelectionAppearance& appearance);
// Above the selection, `barGap` clear, or at the mouse when the bounds are unknown; kept on the
// visible frame.
Point barOrigin(Size size, std::optional<Rect> selection, Point mouse, Rect visible);
// Centred on `point`, 12 points above it, or 12 below when it does not fit above; kept 6 points
// inside the visible frame.
Point resultOrigin(Point point, Size size, Rect visible);
} // namespace SelectionPlacement

} // namespace tavrick

namespace tavrick {
// One line each for the bar and the result window, as a terminal shows them: the buttons and
// the length of the selection, never the selection itself.
std::string describeSurfaces(const SelectionBarState& bar, const SelectionResultState& results);
} // namespace tavrick

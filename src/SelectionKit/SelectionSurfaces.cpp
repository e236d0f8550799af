#include "SelectionKit/SelectionSurfaces.h"

#include <algorithm>

namespace tavrick {

std::string barButtonLabel(const SelectionAction& action, SelectionBarLabels labels, bool alreadyCopied) {
    std::string word = action.kind() == SelectionAction::Case::copy && alreadyCopied ? "Copied" : action.shortTitle();
    switch (labels) {
    case SelectionBarLabels::icon: return "(" + std::string(action.systemImageName()) + ")";
    case SelectionBarLabels::text: return word;
    case SelectionBarLabels::both: return "(" + std::string(action.systemImageName()) + ") " + word;
    }
    return word;
}

namespace SelectionPlacement {

namespace {
double clamp(double value, double low, double high) { return high < low ? low : std::clamp(value, low, high); }
} // namespace

Size barSize(std::size_t buttons, const SelectionAppearance& appearance) {
    double side = appearance.size == SelectionBarSize::small ? 24 : appearance.size == SelectionBarSize::large ? 36 : 30;
    double perButton = appearance.labels == SelectionBarLabels::icon ? side : side * 3;
    return {perButton * static_cast<double>(buttons) + 8, side + 8};
}

Point barOrigin(Size size, std::optional<Rect> selection, Point mouse, Rect visible) {
    Point origin;
    if (selection) {
        origin = {selection->minX(), selection->minY() - barGap - size.height};
        // No room above: below the selection instead.
        if (origin.y < visible.minY()) origin.y = selection->minY() + selection->size.height + barGap;
    } else {
        origin = {mouse.x - size.width / 2, mouse.y - barGap - size.height};
    }
    origin.x = clamp(origin.x, visible.minX(), visible.minX() + visible.size.width - size.width);
    origin.y = clamp(origin.y, visible.minY(), visible.minY() + visible.size.height - size.height);
    return origin;
}

Point resultOrigin(Point point, Size size, Rect visible) {
    const double left = visible.minX() + resultMargin;
    const double right = visible.minX() + visible.size.width - resultMargin - size.width;
    const double top = visible.minY() + resultMargin;
    const double bottom = visible.minY() + visible.size.height - resultMargin - size.height;
    Point origin{clamp(point.x - size.width / 2, left, right), point.y - resultOffset - size.height};
    if (origin.y < top) origin.y = point.y + resultOffset;
    origin.y = clamp(origin.y, top, bottom);
    return origin;
}

} // namespace SelectionPlacement

} // namespace tavrick

#include "CoreKit/UnicodeText.h"

#include <cstdio>

namespace tavrick {

std::string describeSurfaces(const SelectionBarState& bar, const SelectionResultState& results) {
    std::string text = "selection bar: ";
    if (!bar.isVisible) {
        text += "hidden";
    } else {
        for (const auto& action : bar.actions) {
            text += "[" + barButtonLabel(action, SelectionBarLabels::text, bar.alreadyCopied) + " = " + action.id() + "] ";
        }
        char where[96];
        std::snprintf(where, sizeof where, "at %.0f,%.0f (%zu characters)", bar.frame.origin.x, bar.frame.origin.y,
                      UnicodeText::characterCount(bar.text));
        text += where;
    }
    if (results.isVisible) {
        text += "\nresult window: " + results.title + " — ";
        if (auto* working = std::get_if<SelectionResultState::Working>(&results.state)) text += working->text;
        if (auto* answer = std::get_if<SelectionResultState::Answer>(&results.state)) text += answer->text;
        if (auto* failed = std::get_if<SelectionResultState::Failed>(&results.state)) text += failed->text;
    }
    return text;
}

} // namespace tavrick

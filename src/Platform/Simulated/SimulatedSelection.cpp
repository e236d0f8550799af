#include "Platform/Simulated/SimulatedSelection.h"

#include <sstream>
#include <vector>

namespace tavrick {

namespace {

// A snapshot taken when the element is asked for: later changes are a new focus.
class SimulatedElement final : public FocusedTextElement {
public:
    explicit SimulatedElement(SimulatedSelection::Element element) : element_(std::move(element)) {}

    std::optional<std::string> role() override { return element_.role; }
    std::optional<std::string> selectedText() override {
        if (element_.refusesSelectedText) return std::nullopt;
        return element_.selectedText;
    }
    std::optional<TextMarkerRange> selectedTextMarkerRange() override {
        if (element_.refusesMarkerRange || !element_.hasMarkerRange) return std::nullopt;
        return TextMarkerRange{"marker"};
    }
    std::optional<std::string> stringForTextMarkerRange(const TextMarkerRange& range) override {
        if (element_.refusesMarkerRange || range.token != "marker") return std::nullopt;
        return element_.markerText;
    }
    std::optional<Rect> boundsForTextMarkerRange(const TextMarkerRange&) override {
        if (element_.refusesBounds) return std::nullopt;
        return element_.bounds;
    }
    std::optional<TextRange> selectedTextRange() override {
        if (element_.refusesRange || !element_.hasRange) return std::nullopt;
        auto length = element_.rangeText ? element_.rangeText->size()
                                         : (element_.selectedText ? element_.selectedText->size() : 0);
        return TextRange{0, static_cast<std::int64_t>(length)};
    }
    std::optional<std::string> stringForRange(const TextRange&) override {
        if (element_.refusesRange) return std::nullopt;
        return element_.rangeText;
    }
    std::optional<Rect> boundsForRange(const TextRange&) override {
        if (element_.refusesBounds) return std::nullopt;
        return element_.bounds;
    }
    std::size_t attributeCount() override { return element_.attributeCount; }

private:
    SimulatedSelection::Element element_;
};

} // namespace

void SimulatedSelection::setFocused(std::optional<Element> element) {
    std::lock_guard guard(lock_);
    focused_ = std::move(element);
}

void SimulatedSelection::setFrontmostApplication(std::optional<std::string> name) {
    std::lock_guard guard(lock_);
    frontmost_ = std::move(name);
}

std::size_t SimulatedSelection::reads() const {
    std::lock_guard guard(lock_);
    return reads_;
}

std::unique_ptr<FocusedTextElement> SimulatedSelection::focusedElement(double) {
    std::lock_guard guard(lock_);
    ++reads_;
    if (!focused_) return nullptr;
    return std::make_unique<SimulatedElement>(*focused_);
}

std::optional<std::string> SimulatedSelection::frontmostApplicationName() {
    std::lock_guard guard(lock_);
    return frontmost_;
}

std::string SimulatedSelection::handleRequest(const std::string& request, const std::string& text) {
    std::istringstream words(request);
    std::string verb, route;
    words >> verb >> route;
    std::vector<double> numbers;
    for (double value; words >> value;) numbers.push_back(value);
    if (!numbers.empty() && numbers.size() != 4) return "error bounds are four numbers: x y width height\n";

    Element element;
    if (numbers.size() == 4) element.bounds = Rect{{numbers[0], numbers[1]}, {numbers[2], numbers[3]}};
    if (route == "selected") {
        element.selectedText = text;
        element.hasRange = true;
    } else if (route == "marker") {
        element.selectedText = std::string();
        element.hasMarkerRange = true;
        element.markerText = text;
    } else if (route == "range") {
        element.hasRange = true;
        element.rangeText = text;
    } else if (route == "none") {
        // A focused element that publishes no selection at all.
    } else if (route == "refusing") {
        element.selectedText = text;
        element.refusesSelectedText = element.refusesMarkerRange = element.refusesRange = element.refusesBounds = true;
    } else if (route == "unfocused") {
        setFocused(std::nullopt);
        return "ok\n";
    } else {
        return "error the route is one of selected, marker, range, none, refusing, unfocused\n";
    }
    setFocused(std::move(element));
    return "ok\n";
}

} // namespace tavrick

#pragma once

#include "SelectionKit/SelectionAccessibility.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace tavrick {

// The focused element of the simulated session, as the selection reader sees it. It can hold a
// selection on any of the three routes, only some of them, or nothing, and can refuse each read,
// so every route of the reader can be played from a test or from `scripts/session select`.
class SimulatedSelection final : public SelectionAccessibility {
public:
    struct Element {
        std::optional<std::string> role = std::string("AXTextArea");
        // Nothing: the attribute is absent.
        std::optional<std::string> selectedText;
        // A marker range is published; `markerText` is what it resolves to (nothing: no string).
        bool hasMarkerRange = false;
        std::optional<std::string> markerText;
        // A character range is published; `rangeText` is what it resolves to.
        bool hasRange = false;
        std::optional<std::string> rangeText;
        std::optional<Rect> bounds;
        std::size_t attributeCount = 12;
        // Each read that fails as a refusing or hung application's would.
        bool refusesSelectedText = false;
        bool refusesMarkerRange = false;
        bool refusesRange = false;
        bool refusesBounds = false;
    };

    // What the front application publishes; no element means nothing is focused system-wide.
    void setFocused(std::optional<Element> element);
    void setFrontmostApplication(std::optional<std::string> name);
    // Applies a request of the session script: "select <route> [x y w h]" with the text (see
    // SessionBridge). The answer line.
    std::string handleRequest(const std::string& request, const std::string& text);
    // How many times the focused element was asked for.
    std::size_t reads() const;

    std::unique_ptr<FocusedTextElement> focusedElement(double timeout) override;
    std::optional<std::string> frontmostApplicationName() override;

private:
    mutable std::mutex lock_;
    std::optional<Element> focused_;
    std::optional<std::string> frontmost_ = std::string("TextEdit");
    std::size_t reads_ = 0;
};

} // namespace tavrick

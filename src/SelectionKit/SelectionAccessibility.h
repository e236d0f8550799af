#pragma once

#include "CoreKit/Geometry.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// A text marker range as an application publishes it: an opaque token that only the same
// element can turn back into text or bounds.
struct TextMarkerRange {
    std::string token;
    bool operator==(const TextMarkerRange&) const = default;
};

// A selected range of characters, as the accessibility interface counts them.
struct TextRange {
    std::int64_t location = 0;
    std::int64_t length = 0;
    bool operator==(const TextRange&) const = default;
};

// The focused element of the front application, as far as reading its selection goes. Every call
// carries the messaging time-out it was made with; nothing means the attribute is absent, the
// application refused, did not answer in time, or answered with a value of the wrong type.
class FocusedTextElement {
public:
    virtual ~FocusedTextElement() = default;

    virtual std::optional<std::string> role() = 0;
    virtual std::optional<std::string> selectedText() = 0;
    virtual std::optional<TextMarkerRange> selectedTextMarkerRange() = 0;
    virtual std::optional<std::string> stringForTextMarkerRange(const TextMarkerRange& range) = 0;
    virtual std::optional<Rect> boundsForTextMarkerRange(const TextMarkerRange& range) = 0;
    virtual std::optional<TextRange> selectedTextRange() = 0;
    virtual std::optional<std::string> stringForRange(const TextRange& range) = 0;
    virtual std::optional<Rect> boundsForRange(const TextRange& range) = 0;
    // How many attribute names the element publishes, for the probe.
    virtual std::size_t attributeCount() = 0;
};

// The system-wide accessibility element, for the selection reader. Safe from any thread.
class SelectionAccessibility {
public:
    virtual ~SelectionAccessibility() = default;

    // The focused element with `timeout` seconds for each of its calls; nothing when nothing is
    // focused system-wide or when the permission is missing.
    virtual std::unique_ptr<FocusedTextElement> focusedElement(double timeout) = 0;
    // The localised name of the front application; nothing when no application is in front.
    virtual std::optional<std::string> frontmostApplicationName() = 0;
};

} // namespace tavrick

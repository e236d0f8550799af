#include "SelectionKit/SelectionReader.h"

#include "CoreKit/UnicodeText.h"

#include <vector>

namespace tavrick {

namespace {

std::string characters(std::string_view text) { return std::to_string(UnicodeText::characterCount(text)); }

bool hasContent(std::string_view text) { return !UnicodeText::trimmed(text).empty(); }

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
    std::string out;
    for (const auto& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

std::optional<Rect> boundsOfSelection(FocusedTextElement& element) {
    auto range = element.selectedTextRange();
    if (!range) return std::nullopt;
    return element.boundsForRange(*range);
}

} // namespace

SelectionReader::SelectionReader(SelectionAccessibility& accessibility, Scheduler& scheduler)
    : accessibility_(accessibility),
      scheduler_(scheduler),
      queue_(scheduler.makeSerialQueue(queueLabel, QoS::userInitiated)) {}

SelectionReader::Reading SelectionReader::readSynchronously(SelectionAccessibility& accessibility, double timeout) {
    auto element = accessibility.focusedElement(timeout);
    if (!element) return {std::nullopt, "nothing is focused system-wide"};
    std::string role = element->role().value_or("unknown role");
    std::vector<std::string> reasons;

    if (auto text = element->selectedText()) {
        if (hasContent(*text)) return {SelectedText{*text, boundsOfSelection(*element), std::nullopt}, ""};
        reasons.push_back("AXSelectedText empty");
    } else {
        reasons.push_back("AXSelectedText absent");
    }

    if (auto marker = element->selectedTextMarkerRange()) {
        auto text = element->stringForTextMarkerRange(*marker);
        if (text && hasContent(*text))
            return {SelectedText{*text, element->boundsForTextMarkerRange(*marker), std::nullopt}, ""};
        reasons.push_back(text ? "marker range resolved to " + characters(*text) + " characters"
                               : "marker range present but resolved to nothing");
    } else {
        reasons.push_back("AXSelectedTextMarkerRange absent");
    }

    if (auto range = element->selectedTextRange()) {
        auto text = element->stringForRange(*range);
        if (text && hasContent(*text)) return {SelectedText{*text, element->boundsForRange(*range), std::nullopt}, ""};
        reasons.push_back(text ? "AXSelectedTextRange " + characters(*text) + " characters"
                               : "AXSelectedTextRange present, unreadable");
    } else {
        reasons.push_back("AXSelectedTextRange absent");
    }
    return {std::nullopt, role + ": " + joined(reasons, "; ")};
}

std::string SelectionReader::describe(SelectionAccessibility& accessibility, double timeout) {
    auto app = accessibility.frontmostApplicationName();
    if (!app) return "no frontmost app to ask";
    auto element = accessibility.focusedElement(timeout);
    if (!element) return *app + ": no focused element — is Accessibility granted?";

    std::vector<std::string> lines{*app + ": role=" + element->role().value_or("unknown role")};
    std::vector<std::string> working;
    if (auto text = element->selectedText()) {
        lines.push_back("AXSelectedText=" + characters(*text) + " characters");
        if (hasContent(*text)) working.push_back("selected");
    } else {
        lines.push_back("AXSelectedText absent");
    }
    if (auto marker = element->selectedTextMarkerRange()) {
        auto text = element->stringForTextMarkerRange(*marker);
        lines.push_back("AXSelectedTextMarkerRange present" +
                        (text ? ", resolves to " + characters(*text) + " characters" : std::string(", but no string for it")));
        if (text && hasContent(*text)) working.push_back("marker");
    } else {
        lines.push_back("AXSelectedTextMarkerRange absent");
    }
    if (auto range = element->selectedTextRange()) {
        auto text = element->stringForRange(*range);
        lines.push_back("AXSelectedTextRange present" +
                        (text ? ", resolves to " + characters(*text) + " characters" : std::string(", but no string for it")));
        if (text && hasContent(*text)) working.push_back("range");
    } else {
        lines.push_back("AXSelectedTextRange absent");
    }
    if (!working.empty()) {
        lines.push_back("supports " + joined(working, ", "));
    } else {
        lines.push_back("supports no selection attributes at all (" + std::to_string(element->attributeCount()) +
                        " attributes)");
    }
    return joined(lines, "\n");
}

void SelectionReader::read(std::function<void(std::optional<SelectedText>)> completion) {
    // The task holds nothing of the reader itself, which may be gone by the time a slow
    // application answers.
    queue_->async([accessibility = &accessibility_, scheduler = &scheduler_, shared = shared_,
                   completion = std::move(completion)]() mutable {
        auto reading = readSynchronously(*accessibility, timeout);
        if (reading.selection) reading.selection->appName = accessibility->frontmostApplicationName();
        {
            std::lock_guard guard(shared->lock);
            shared->lastFailureReason = reading.failureReason;
        }
        scheduler->async([completion = std::move(completion), selection = std::move(reading.selection)]() mutable {
            completion(std::move(selection));
        });
    });
}

void SelectionReader::describeSelectionSupport(std::function<void(std::string)> completion) {
    queue_->async([accessibility = &accessibility_, scheduler = &scheduler_, completion = std::move(completion)]() mutable {
        auto text = describe(*accessibility, timeout);
        scheduler->async([completion = std::move(completion), text = std::move(text)]() mutable { completion(text); });
    });
}

std::string SelectionReader::lastFailureReason() const {
    std::lock_guard guard(shared_->lock);
    return shared_->lastFailureReason;
}

} // namespace tavrick

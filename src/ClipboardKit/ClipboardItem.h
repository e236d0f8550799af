#pragma once

#include "CoreKit/UUID.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// Copied text, shared rather than copied: a history of hundreds of long copies is handed to the
// writer thread as a snapshot, and that must cost pointers, not megabytes. Immutable, so the
// snapshot and the history can read it from two threads.
class SharedText {
public:
    SharedText() : SharedText(std::string()) {}
    SharedText(std::string text) : payload_(std::make_shared<Payload>(std::move(text))) {}
    SharedText(const char* text) : SharedText(std::string(text)) {}

    const std::string& str() const { return payload_->text; }
    operator std::string_view() const { return payload_->text; }
    bool empty() const { return payload_->text.empty(); }
    // The text folded for search (case and diacritics gone), worked out once, on first use.
    // Main thread only.
    const std::string& folded() const;

    friend bool operator==(const SharedText& a, const SharedText& b) {
        return a.payload_ == b.payload_ || a.payload_->text == b.payload_->text;
    }

private:
    struct Payload {
        explicit Payload(std::string t) : text(std::move(t)) {}
        std::string text;
        mutable std::optional<std::string> folded;
    };
    std::shared_ptr<const Payload> payload_;
};

// One remembered copy; also the record of "clipboard.json".
struct ClipboardItem {
    UUID id;
    SharedText text;
    // Seconds since 1970.
    double copiedAt = 0;
    std::optional<std::string> sourceBundleID;
    std::optional<std::string> sourceAppName;
    bool isPinned = false;

    // One line for the menu: runs of blanks, tabs and line ends become one blank, and anything
    // past 60 characters is cut to 59 and "…".
    std::string preview() const;

    friend bool operator==(const ClipboardItem&, const ClipboardItem&) = default;
};

// The file stores dates as seconds since 1 January 2001, the platform's reference date.
inline constexpr double referenceDateOffset = 978307200.0;

nlohmann::json toJSON(const ClipboardItem& item);
// Nothing when a field is missing or of the wrong type.
std::optional<ClipboardItem> clipboardItemFromJSON(const nlohmann::json& json);

} // namespace tavrick

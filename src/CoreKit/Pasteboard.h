#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The system's general pasteboard, as far as the program uses it: a counter that moves with every
// change, the types of what is on it, and plain text in and out. The counter is all there is to
// watch: the pasteboard has no change notification, so readers poll it.
class Pasteboard {
public:
    // The type of plain UTF-8 text.
    static constexpr const char* plainTextType = "public.utf8-plain-text";

    virtual ~Pasteboard() = default;

    virtual std::int64_t changeCount() const = 0;
    // The types of what is on the pasteboard now, in the order the writer declared them.
    virtual std::vector<std::string> types() const = 0;
    // The data for `type` as bytes, nothing when absent. Text is meant to be UTF-8, but a writer
    // may put anything there.
    virtual std::optional<std::string> string(const std::string& type = plainTextType) const = 0;
    // When the plain text now on the pasteboard was too large to be read: the bytes it holds, at
    // least (a refusal may come before the whole size is known). Nothing when it was read, when
    // there is none, or when this pasteboard reads any size.
    virtual std::optional<std::int64_t> oversizedTextBytes() const { return std::nullopt; }

    // Empties the pasteboard; returns the new change count.
    virtual std::int64_t clearContents() = 0;
    // Adds `text` under `type` to what the pasteboard holds; false when the platform refused.
    virtual bool setString(const std::string& text, const std::string& type = plainTextType) = 0;
};

} // namespace tavrick

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The helper's record of the fans it is about to set, written before it takes them so that a
// run after a crash can find and hand back what it left. One small JSON file:
// {"fans": [0, 1], "at": <seconds since 1970>}.
class FanJournal {
public:
    explicit FanJournal(std::filesystem::path path) : path_(std::move(path)) {}

    struct Entry {
        std::vector<int> fans;
        double at = 0;
        friend bool operator==(const Entry&, const Entry&) = default;
    };

    // What the file says. Nothing when there is no journal; a file that cannot be read is moved
    // aside (never deleted) and `unreadable` is set, so the caller treats every manual fan as
    // possibly its own.
    std::optional<Entry> read(bool* unreadable = nullptr) const;
    // Written atomically; false (with `error`) when it could not be written, in which case the
    // fans must be left alone.
    bool write(const Entry& entry, std::string* error = nullptr) const;
    // Only once every listed fan reads as macOS's again.
    bool remove() const;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace tavrick

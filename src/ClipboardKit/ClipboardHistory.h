#pragma once

#include "ClipboardKit/ClipboardItem.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The remembered copies: pinned first, each group newest first. Pinned items never count
// against `maximumItems` and are never evicted.
class ClipboardHistory {
public:
    explicit ClipboardHistory(std::int64_t maximumItems = 100);

    const std::vector<ClipboardItem>& items() const { return items_; }
    std::int64_t maximumItems() const { return maximumItems_; }
    // Values below 1 count as 1; the list is trimmed to fit.
    void setMaximumItems(std::int64_t maximumItems);

    std::vector<ClipboardItem> pinned() const;
    std::vector<ClipboardItem> unpinned() const;

    // A text already in the list moves to the front as the new item, keeping its pin.
    void insert(ClipboardItem item);
    void setPinned(bool flag, const UUID& id);
    void remove(const UUID& id);
    void clear(bool keepingPinned);
    // What `clear(keepingPinned)` would do, in words, e.g. "Cleared 3 copies, kept 1 pinned".
    std::string clearSummary(bool keepingPinned) const;
    // Items whose text contains the query, ignoring case and diacritics, in list order; all of
    // them for a query of white space only.
    std::vector<ClipboardItem> search(std::string_view query) const;

    friend bool operator==(const ClipboardHistory&, const ClipboardHistory&) = default;

private:
    void sortPinnedFirst();
    void trim();

    std::vector<ClipboardItem> items_;
    std::int64_t maximumItems_;
};

} // namespace tavrick

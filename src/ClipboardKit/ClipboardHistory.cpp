#include "ClipboardKit/ClipboardHistory.h"

#include "CoreKit/UnicodeText.h"

#include <algorithm>

#include <string.h>

namespace tavrick {

namespace {
std::string copies(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " copy" : " copies");
}
} // namespace

ClipboardHistory::ClipboardHistory(std::int64_t maximumItems) : maximumItems_(std::max<std::int64_t>(1, maximumItems)) {}

void ClipboardHistory::setMaximumItems(std::int64_t maximumItems) {
    maximumItems_ = std::max<std::int64_t>(1, maximumItems);
    trim();
}

std::vector<ClipboardItem> ClipboardHistory::pinned() const {
    std::vector<ClipboardItem> out;
    std::copy_if(items_.begin(), items_.end(), std::back_inserter(out), [](const auto& item) { return item.isPinned; });
    return out;
}

std::vector<ClipboardItem> ClipboardHistory::unpinned() const {
    std::vector<ClipboardItem> out;
    std::copy_if(items_.begin(), items_.end(), std::back_inserter(out), [](const auto& item) { return !item.isPinned; });
    return out;
}

void ClipboardHistory::insert(ClipboardItem item) {
    const bool wasPinned = std::any_of(items_.begin(), items_.end(), [&](const auto& existing) {
        return existing.isPinned && existing.text == item.text;
    });
    item.isPinned = item.isPinned || wasPinned;
    std::erase_if(items_, [&](const auto& existing) { return existing.text == item.text; });
    items_.insert(items_.begin(), std::move(item));
    sortPinnedFirst();
    trim();
}

void ClipboardHistory::setPinned(bool flag, const UUID& id) {
    auto found = std::find_if(items_.begin(), items_.end(), [&](const auto& item) { return item.id == id; });
    if (found == items_.end()) return;
    found->isPinned = flag;
    sortPinnedFirst();
    trim();
}

void ClipboardHistory::remove(const UUID& id) {
    std::erase_if(items_, [&](const auto& item) { return item.id == id; });
}

void ClipboardHistory::clear(bool keepingPinned) {
    if (keepingPinned) {
        std::erase_if(items_, [](const auto& item) { return !item.isPinned; });
    } else {
        items_.clear();
    }
}

std::string ClipboardHistory::clearSummary(bool keepingPinned) const {
    if (!keepingPinned) return items_.empty() ? "Nothing to clear" : "Cleared " + copies(items_.size());
    const auto p = static_cast<std::size_t>(std::count_if(items_.begin(), items_.end(), [](const auto& item) { return item.isPinned; }));
    const auto c = items_.size() - p;
    if (c == 0 && p == 0) return "Nothing to clear";
    if (c == 0) return "Kept " + std::to_string(p) + " pinned, nothing else to clear";
    if (p == 0) return "Cleared " + copies(c);
    return "Cleared " + copies(c) + ", kept " + std::to_string(p) + " pinned";
}

std::vector<ClipboardItem> ClipboardHistory::search(std::string_view query) const {
    const auto trimmedQuery = UnicodeText::trimmed(query);
    if (trimmedQuery.empty()) return items_;
    const std::string needle = UnicodeText::folded(trimmedQuery);
    std::vector<ClipboardItem> out;
    for (const auto& item : items_) {
        // The C library's substring search is the fastest at hundreds of long copies.
        const auto& haystack = item.text.folded();
        if (::memmem(haystack.data(), haystack.size(), needle.data(), needle.size())) out.push_back(item);
    }
    return out;
}

void ClipboardHistory::sortPinnedFirst() {
    std::stable_partition(items_.begin(), items_.end(), [](const auto& item) { return item.isPinned; });
}

void ClipboardHistory::trim() {
    const auto p = std::count_if(items_.begin(), items_.end(), [](const auto& item) { return item.isPinned; });
    const auto room = std::max<std::int64_t>(0, maximumItems_ - p);
    auto unpinned = static_cast<std::int64_t>(items_.size()) - p;
    // The oldest unpinned items are at the end.
    while (unpinned > room) {
        auto last = std::find_if(items_.rbegin(), items_.rend(), [](const auto& item) { return !item.isPinned; });
        items_.erase(std::next(last).base());
        --unpinned;
    }
}

} // namespace tavrick

#include "NetCore/ResolverCache.h"

#include "NetCore/Flow.h"

#include <algorithm>
#include <vector>

namespace tavrick {

std::optional<ResolverCache::Answer> ResolverCache::lookup(const std::string& address, double time) {
    auto it = entries_.find(address);
    if (it == entries_.end()) return std::nullopt;
    if (time >= it->second.expires) {
        entries_.erase(it);
        return std::nullopt;
    }
    it->second.used = time;
    return it->second.answer;
}

bool ResolverCache::needsLookup(const std::string& address, double time) {
    if (Endpoint::isPrivateAddress(address)) return false;
    return !lookup(address, time).has_value();
}

void ResolverCache::store(const Answer& answer, const std::string& address, double time) {
    Entry& entry = entries_[address];
    entry.answer = answer;
    entry.expires = time + (answer.name ? positiveTTL : negativeTTL);
    entry.used = time;
    evict();
}

std::string ResolverCache::label(const std::string& address, double time) {
    auto answer = lookup(address, time);
    if (answer && answer->name) return *answer->name;
    return address;
}

void ResolverCache::evict() {
    if (entries_.size() <= capacity) return;
    std::vector<std::pair<double, std::string>> order;
    order.reserve(entries_.size());
    for (auto& [address, entry] : entries_) order.emplace_back(entry.used, address);
    const std::size_t excess = entries_.size() - capacity;
    std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(excess), order.end());
    for (std::size_t i = 0; i < excess; ++i) entries_.erase(order[i].second);
}

} // namespace tavrick

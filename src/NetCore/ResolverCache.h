#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

namespace tavrick {

// Remembers reverse-lookup answers, a name for six hours and "no name" for ten minutes, and
// forgets the least recently used past 4096 addresses.
class ResolverCache {
public:
    static constexpr double positiveTTL = 21600;
    static constexpr double negativeTTL = 600;
    static constexpr std::size_t capacity = 4096;

    // A name, or `std::nullopt` inside for "the address has no name".
    struct Answer {
        std::optional<std::string> name;
        static Answer none() { return {}; }
        static Answer named(std::string n) { return {std::move(n)}; }
        bool operator==(const Answer&) const = default;
    };

    // A live answer, whose use is noted; an expired one is removed.
    std::optional<Answer> lookup(const std::string& address, double time);
    // Private addresses and live entries need no lookup.
    bool needsLookup(const std::string& address, double time);
    void store(const Answer& answer, const std::string& address, double time);
    // The live name, else the address itself.
    std::string label(const std::string& address, double time);
    std::size_t count() const { return entries_.size(); }

private:
    struct Entry {
        Answer answer;
        double expires = 0;
        double used = 0;
    };
    void evict();
    std::unordered_map<std::string, Entry> entries_;
};

} // namespace tavrick

#pragma once

#include "CoreKit/Models.h"

#include <optional>
#include <unordered_map>
#include <vector>

namespace tavrick {

// The enabled trackpad bindings by gesture. The first enabled binding in file order wins a shared
// gesture; later ones are kept in `shadowed` so that they can be reported. Trackpad gestures have
// no per-application scope.
struct GestureTable {
    std::unordered_map<GestureSpec, Mapping> entries;
    std::vector<Mapping> shadowed;
    // The winners in file order, for the log line that lists them.
    std::vector<GestureSpec> order;

    GestureTable() = default;
    explicit GestureTable(const std::vector<Mapping>& mappings);

    bool isEmpty() const { return entries.empty(); }
    std::size_t count() const { return entries.size(); }
    const Mapping* find(const GestureSpec& spec) const;
    std::optional<Mapping> match(const GestureSpec& spec) const;
    // "3-finger swipe left -> Left Half; 4-finger tap -> Open https://…", or "none".
    std::string describe() const;

    friend bool operator==(const GestureTable&, const GestureTable&) = default;
};

} // namespace tavrick

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tavrick::ProcessFootprint {

// The memory this process costs the machine: what it has dirtied and holds, resident or
// swapped. On Linux that is the anonymous resident set plus swap; nothing when unreadable.
std::optional<std::uint64_t> current();

// The same reckoning over the text of a /proc/<pid>/status file.
std::optional<std::uint64_t> fromStatus(std::string_view status);

} // namespace tavrick::ProcessFootprint

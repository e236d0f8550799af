#pragma once

#include <cstdint>
#include <string>

namespace tavrick::ByteFormat {

// A short figure for a size in bytes: "812 bytes", "4.2 KB", "38.5 MB", "1.3 GB", with one
// decimal below 100 of a unit and none above, in units of 1024 as memory is counted.
std::string compact(std::uint64_t bytes);

// A whole percentage of a fraction: 0.423 gives "42%". Fractions outside 0...1 are clamped.
std::string percent(double fraction);

} // namespace tavrick::ByteFormat

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick::Base64 {

std::string encode(const std::uint8_t* bytes, std::size_t size);
inline std::string encode(std::string_view bytes) {
    return encode(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}
// Strict: the standard alphabet, padded to a multiple of four, nothing else (the library's
// decoder would also let white space through).
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

} // namespace tavrick::Base64

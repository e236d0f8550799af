#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// A 128-bit identifier. Its text form is the standard 8-4-4-4-12 hexadecimal one in upper case,
// which is how ids are written to disk.
struct UUID {
    std::array<std::uint8_t, 16> bytes{};

    // A fresh random (version 4) identifier.
    static UUID random();
    // Reads the 36-character text form, upper or lower case; anything else gives nothing.
    static std::optional<UUID> parse(std::string_view text);

    std::string uuidString() const;

    friend bool operator==(const UUID&, const UUID&) = default;
    friend auto operator<=>(const UUID&, const UUID&) = default;
};

} // namespace tavrick

template <>
struct std::hash<tavrick::UUID> {
    std::size_t operator()(const tavrick::UUID& id) const noexcept {
        std::uint64_t a = 0, b = 0;
        for (int i = 0; i < 8; ++i) a = a << 8 | id.bytes[static_cast<std::size_t>(i)];
        for (int i = 8; i < 16; ++i) b = b << 8 | id.bytes[static_cast<std::size_t>(i)];
        return std::hash<std::uint64_t>{}(a ^ (b * 0x9e3779b97f4a7c15ULL));
    }
};

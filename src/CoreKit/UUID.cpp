#include "CoreKit/UUID.h"

#include <mutex>
#include <random>

namespace tavrick {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool isDashPosition(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

} // namespace

UUID UUID::random() {
    // One engine seeded once from the system's entropy; ids need to be unique, not secret.
    static std::mutex mutex;
    static std::mt19937_64 engine = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    UUID id;
    {
        std::lock_guard lock(mutex);
        std::uint64_t high = engine();
        std::uint64_t low = engine();
        for (int i = 0; i < 8; ++i) {
            id.bytes[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(high >> (56 - 8 * i));
            id.bytes[static_cast<std::size_t>(8 + i)] = static_cast<std::uint8_t>(low >> (56 - 8 * i));
        }
    }
    id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40); // version 4
    id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return id;
}

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    UUID id;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (isDashPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int high = hexDigit(text[i]);
        int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        id.bytes[byte++] = static_cast<std::uint8_t>(high << 4 | low);
        i += 2;
    }
    return id;
}

std::string UUID::uuidString() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

} // namespace tavrick

#include "Platform/Linux/Base64.h"

#include <openssl/evp.h>

#include <cctype>

namespace tavrick::Base64 {

std::string encode(const std::uint8_t* bytes, std::size_t size) {
    std::string out((size + 2) / 3 * 4 + 1, '\0');
    int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes, static_cast<int>(size));
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    for (std::size_t i = 0; i + padding < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (!std::isalnum(c) && c != '+' && c != '/') return std::nullopt;
    }
    std::vector<std::uint8_t> out(text.size() / 4 * 3);
    int length = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (length < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(length) - padding);
    return out;
}

} // namespace tavrick::Base64

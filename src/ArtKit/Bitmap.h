#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Pixels as drawn: row after row, each pixel 0xAARRGGBB with the colour premultiplied by its
// alpha, the layout cairo and the tray's icon pixmaps both use.
struct Bitmap {
    int width = 0;
    int height = 0;
    std::vector<std::uint32_t> argb;

    std::uint32_t pixel(int x, int y) const { return argb[static_cast<std::size_t>(y) * width + x]; }
    static std::uint8_t alpha(std::uint32_t pixel) { return static_cast<std::uint8_t>(pixel >> 24); }

    // The PNG file's bytes; nothing, with `error` set, when the encoder refuses.
    std::optional<std::string> png(std::string* error = nullptr) const;
    // A PNG file's bytes back into pixels; nothing when they are not a PNG.
    static std::optional<Bitmap> fromPNG(const std::string& bytes);
};

} // namespace tavrick

#pragma once

#include <cstdint>
#include <vector>

namespace tavrick {

// The tray item's picture as the hosts take it: square ARGB32 pixels, bytes in network order
// (alpha, red, green, blue), rows top to bottom.
struct TrayPixmap {
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::vector<std::uint8_t> argb;
};

namespace TrayIcon {

// The sizes offered to hosts; each picks the one closest to its panel.
const std::vector<std::int32_t>& sizes();

// The menu bar glyph at `size` pixels square, white on transparent so that it reads on dark and
// light panels alike.
TrayPixmap draw(std::int32_t size);

} // namespace TrayIcon

} // namespace tavrick

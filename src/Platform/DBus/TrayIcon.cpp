#include "Platform/DBus/TrayIcon.h"

#include "ArtKit/IconArt.h"

#include <algorithm>
#include <cmath>

namespace tavrick::TrayIcon {

const std::vector<std::int32_t>& sizes() {
    static const std::vector<std::int32_t> offered{16, 22, 24, 32, 48, 64};
    return offered;
}

TrayPixmap draw(std::int32_t size) {
    TrayPixmap pixmap;
    if (size <= 0) return pixmap;
    pixmap.width = pixmap.height = size;
    pixmap.argb.assign(static_cast<std::size_t>(size) * static_cast<std::size_t>(size) * 4, 0);
    // The menu bar glyph, as wide as the square and centred in its height; the template's black
    // becomes white so the shape reads on dark panels, and the shape is all in the alpha.
    const Bitmap glyph = MenuBarGlyph::render(size / MenuBarGlyph::width);
    const int top = (size - glyph.height) / 2;
    for (int row = 0; row < glyph.height; ++row) {
        const int y = row + top;
        if (y < 0 || y >= size) continue;
        for (int column = 0; column < std::min(glyph.width, static_cast<int>(size)); ++column) {
            auto* pixel = &pixmap.argb[(static_cast<std::size_t>(y) * size + column) * 4];
            pixel[0] = Bitmap::alpha(glyph.pixel(column, row));
            pixel[1] = pixel[2] = pixel[3] = 255;
        }
    }
    return pixmap;
}

} // namespace tavrick::TrayIcon

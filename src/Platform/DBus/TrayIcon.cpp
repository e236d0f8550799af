#include "Platform/DBus/TrayIcon.h"

#include <algorithm>
#include <cmath>

namespace tavrick::TrayIcon {

const std::vector<std::int32_t>& sizes() {
    static const std::vector<std::int32_t> offered{16, 22, 24, 32, 48, 64};
    return offered;
}

namespace {

// Whether a point of the unit square (0..1 on both axes) is ink.
bool ink(double x, double y) {
    const double dx = x - 0.5, dy = y - 0.5;
    const double distance = std::sqrt(dx * dx + dy * dy);
    const bool ring = distance <= 0.47 && distance >= 0.37;
    const bool bar = y >= 0.27 && y <= 0.37 && x >= 0.28 && x <= 0.72;
    const bool stem = x >= 0.45 && x <= 0.55 && y >= 0.27 && y <= 0.75;
    return ring || bar || stem;
}

} // namespace

TrayPixmap draw(std::int32_t size) {
    TrayPixmap pixmap;
    if (size <= 0) return pixmap;
    pixmap.width = pixmap.height = size;
    pixmap.argb.resize(static_cast<std::size_t>(size) * static_cast<std::size_t>(size) * 4);
    constexpr int samples = 4;
    for (int row = 0; row < size; ++row) {
        for (int column = 0; column < size; ++column) {
            int covered = 0;
            for (int sy = 0; sy < samples; ++sy) {
                for (int sx = 0; sx < samples; ++sx) {
                    const double x = (column + (sx + 0.5) / samples) / size;
                    const double y = (row + (sy + 0.5) / samples) / size;
                    covered += ink(x, y) ? 1 : 0;
                }
            }
            const auto alpha = static_cast<std::uint8_t>(std::lround(255.0 * covered / (samples * samples)));
            auto* pixel = &pixmap.argb[(static_cast<std::size_t>(row) * size + column) * 4];
            // White; the shape is all in the alpha channel.
            pixel[0] = alpha;
            pixel[1] = 255;
            pixel[2] = 255;
            pixel[3] = 255;
        }
    }
    return pixmap;
}

} // namespace tavrick::TrayIcon

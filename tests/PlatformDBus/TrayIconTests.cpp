// The tray picture: sizes, byte order and the shape's placement.
#include "Platform/DBus/TrayIcon.h"

#include "ArtKit/IconArt.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {

std::uint8_t alphaAt(const TrayPixmap& pixmap, int x, int y) {
    return pixmap.argb[(static_cast<std::size_t>(y) * pixmap.width + x) * 4];
}

} // namespace

TEST(TrayIcon, EverySizeIsSquareWithFourBytesAPixel) {
    for (auto size : TrayIcon::sizes()) {
        const auto pixmap = TrayIcon::draw(size);
        EXPECT_EQ(pixmap.width, size);
        EXPECT_EQ(pixmap.height, size);
        EXPECT_EQ(pixmap.argb.size(), static_cast<std::size_t>(size) * size * 4) << size;
    }
    // Sizes hosts commonly ask for are all offered, smallest first.
    EXPECT_EQ(TrayIcon::sizes().front(), 16);
    EXPECT_TRUE(std::is_sorted(TrayIcon::sizes().begin(), TrayIcon::sizes().end()));
}

TEST(TrayIcon, IsTheMenuBarGlyphInWhiteCentredWithClearCorners) {
    for (auto size : {18, 36}) {
        const auto pixmap = TrayIcon::draw(size);
        const Bitmap glyph = MenuBarGlyph::render(size / 18.0);
        const int top = (size - glyph.height) / 2;
        ASSERT_GT(top, 0) << "the glyph is wider than tall, so rows stay clear above and below";
        int ink = 0;
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const int row = y - top;
                const int expected = row >= 0 && row < glyph.height ? Bitmap::alpha(glyph.pixel(x, row)) : 0;
                ASSERT_EQ(alphaAt(pixmap, x, y), expected) << size << " at " << x << "," << y;
                if (expected == 255) {
                    ++ink;
                    const auto* pixel = &pixmap.argb[(static_cast<std::size_t>(y) * size + x) * 4];
                    ASSERT_EQ(pixel[1], 255);
                    ASSERT_EQ(pixel[2], 255);
                    ASSERT_EQ(pixel[3], 255);
                }
            }
        }
        EXPECT_GT(ink, size) << "a glyph with hardly any solid pixels";
        for (auto [x, y] : {std::pair{0, 0}, {size - 1, 0}, {0, size - 1}, {size - 1, size - 1}})
            EXPECT_EQ(alphaAt(pixmap, x, y), 0) << size << " at " << x << "," << y;
    }
}

TEST(TrayIcon, NoPixelsForANonsenseSize) {
    for (auto size : {0, -1, -64}) {
        const auto pixmap = TrayIcon::draw(size);
        EXPECT_EQ(pixmap.width, 0);
        EXPECT_TRUE(pixmap.argb.empty());
    }
}

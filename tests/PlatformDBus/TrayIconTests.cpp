// The tray picture: sizes, byte order and the shape's placement.
#include "Platform/DBus/TrayIcon.h"

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

TEST(TrayIcon, ShapeSitsInTheMiddleWithClearCornersAndAlphaFirst) {
    for (auto size : {16, 22, 48, 64}) {
        const auto pixmap = TrayIcon::draw(size);
        // Corners are outside the ring: clear.
        for (auto [x, y] : {std::pair{0, 0}, {size - 1, 0}, {0, size - 1}, {size - 1, size - 1}}) {
            EXPECT_EQ(alphaAt(pixmap, x, y), 0) << size << " at " << x << "," << y;
        }
        // The stem of the T runs down the middle: solid where it is wider than two pixels.
        EXPECT_GT(alphaAt(pixmap, size / 2, size / 2), 100) << size;
        if (size >= 48) {
            EXPECT_EQ(alphaAt(pixmap, size / 2, size / 2), 255) << size;
        }
        // Between the stem and the ring, on the middle row, nothing.
        EXPECT_EQ(alphaAt(pixmap, size / 2 - size / 5, size / 2 + size / 8), 0) << size;
        // Colour bytes follow alpha: white wherever there is ink.
        const auto* middle = &pixmap.argb[(static_cast<std::size_t>(size / 2) * size + size / 2) * 4];
        EXPECT_EQ(middle[1], 255);
        EXPECT_EQ(middle[2], 255);
        EXPECT_EQ(middle[3], 255);
        // Left and right halves mirror each other, so the mark is not lopsided.
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size / 2; ++x) {
                ASSERT_NEAR(alphaAt(pixmap, x, y), alphaAt(pixmap, size - 1 - x, y), 1) << size << " at " << x << "," << y;
            }
        }
    }
}

TEST(TrayIcon, NoPixelsForANonsenseSize) {
    for (auto size : {0, -1, -64}) {
        const auto pixmap = TrayIcon::draw(size);
        EXPECT_EQ(pixmap.width, 0);
        EXPECT_TRUE(pixmap.argb.empty());
    }
}

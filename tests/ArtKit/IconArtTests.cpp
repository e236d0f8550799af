// The pictures: sizes, that they survive as PNG files, and what a person would see in them.
#include "ArtKit/IconArt.h"

#include <gtest/gtest.h>

#include <set>

using namespace tavrick;

namespace {

std::uint8_t red(std::uint32_t p) { return static_cast<std::uint8_t>(p >> 16); }
std::uint8_t green(std::uint32_t p) { return static_cast<std::uint8_t>(p >> 8); }
std::uint8_t blue(std::uint32_t p) { return static_cast<std::uint8_t>(p); }
bool isWhite(std::uint32_t p) { return p == 0xFFFFFFFFu; }

} // namespace

TEST(IconArt, EveryFileHasItsSizeAndSurvivesAsAPNG) {
    const auto& files = IconArt::files();
    ASSERT_EQ(files.size(), 12u);
    std::set<std::string> names;
    for (const auto& file : files) {
        names.insert(file.name);
        const auto bitmap = file.render();
        EXPECT_EQ(bitmap.width, file.pixelWidth) << file.name;
        EXPECT_EQ(bitmap.height, file.pixelHeight) << file.name;
        std::string error;
        const auto bytes = bitmap.png(&error);
        ASSERT_TRUE(bytes) << file.name << ": " << error;
        EXPECT_EQ(bytes->substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8)) << file.name;
        const auto back = Bitmap::fromPNG(*bytes);
        ASSERT_TRUE(back) << file.name;
        EXPECT_EQ(back->width, bitmap.width);
        EXPECT_EQ(back->height, bitmap.height);
        EXPECT_EQ(back->argb, bitmap.argb) << file.name << " changed on the way through the file";
    }
    EXPECT_EQ(names.size(), files.size()) << "two pictures would overwrite each other";
    // The sizes a desktop asks for: the largest is 1024 pixels, the glyph 18 by 16 points.
    EXPECT_TRUE(names.count("icon_16x16.png") && names.count("icon_512x512@2x.png") && names.count("MenuBarGlyph.png") &&
                names.count("MenuBarGlyph@2x.png"));
    for (const auto& file : files) {
        if (file.name == "icon_512x512@2x.png") {
            EXPECT_EQ(file.pixelWidth, 1024);
        }
        if (file.name == "MenuBarGlyph@2x.png") {
            EXPECT_EQ(std::pair(file.pixelWidth, file.pixelHeight), std::pair(36, 32));
        }
    }
}

TEST(IconArt, BytesThatAreNotAPictureAndAnEmptyPictureAreRefused) {
    EXPECT_FALSE(Bitmap::fromPNG(""));
    EXPECT_FALSE(Bitmap::fromPNG("\x89PNG\r\n\x1a\n but cut short"));
    EXPECT_FALSE(Bitmap::fromPNG("GIF89a"));
    std::string error;
    EXPECT_FALSE(Bitmap{}.png(&error));
    EXPECT_EQ(error, "the picture has no pixels");
    Bitmap short_{2, 2, {0, 0, 0}};
    EXPECT_FALSE(short_.png());
}

TEST(MenuBarGlyph, IsATemplateOpaqueOnTheFingersAndClearBetweenThem) {
    for (double scale : {1.0, 2.0, 3.0}) {
        const auto glyph = MenuBarGlyph::render(scale);
        ASSERT_EQ(glyph.width, static_cast<int>(18 * scale));
        ASSERT_EQ(glyph.height, static_cast<int>(16 * scale));
        // A template is black and alpha only, so the bar can tint it.
        std::size_t opaque = 0, partly = 0;
        for (auto p : glyph.argb) {
            EXPECT_EQ(p & 0x00FFFFFFu, 0u) << "a coloured pixel at scale " << scale;
            if (Bitmap::alpha(p) == 255) ++opaque;
            else if (Bitmap::alpha(p) > 0) ++partly;
        }
        auto at = [&](double x, double y) {
            return Bitmap::alpha(glyph.pixel(static_cast<int>(x * scale), static_cast<int>(y * scale)));
        };
        // The corners, the gaps between the fingers and the strip above the tips are clear.
        for (auto [x, y] : {std::pair{0.2, 0.2}, {17.5, 0.2}, {0.2, 15.5}, {17.5, 15.5}, {6.5, 10.0}, {11.5, 10.0},
                            {9.0, 0.3}}) {
            EXPECT_EQ(at(x, y), 0) << "(" << x << ", " << y << ") at scale " << scale;
        }
        // The three tips are solid; the middle finger leads.
        for (auto [x, y] : {std::pair{4.0, 5.4}, {9.0, 3.6}, {14.0, 5.4}}) {
            EXPECT_EQ(at(x, y), 255) << "(" << x << ", " << y << ") at scale " << scale;
        }
        EXPECT_EQ(at(4.0, 1.8), 0) << "the outer fingers sit lower than the middle one";
        EXPECT_GT(at(9.0, 1.5), 0);
        // Enough ink to read at a glance, and mostly clear: a shape, not a blot.
        const double share = static_cast<double>(opaque) / static_cast<double>(glyph.argb.size());
        EXPECT_GT(share, 0.08) << scale;
        EXPECT_LT(share, 0.4) << scale;
        EXPECT_GT(opaque, partly) << "edges only, at scale " << scale;
    }
}

TEST(AppIcon, ARoundedShadedSquareWithTheWhiteGlyphInside) {
    for (int side : {16, 32, 64, 128, 256, 1024}) {
        const auto icon = AppIcon::render(side);
        ASSERT_EQ(icon.width, side);
        ASSERT_EQ(icon.height, side);
        // The corners round off and the margin stays clear.
        EXPECT_EQ(Bitmap::alpha(icon.pixel(0, 0)), 0) << side;
        EXPECT_EQ(Bitmap::alpha(icon.pixel(side - 1, side - 1)), 0) << side;
        const int inset = side / 10 + 1;
        EXPECT_LT(Bitmap::alpha(icon.pixel(inset, inset)), 255) << "the body's corner is rounded at " << side;
        // Just inside the left edge, half-way down, is the body: solid and coloured.
        const auto left = icon.pixel(inset + 1, side / 2);
        EXPECT_EQ(Bitmap::alpha(left), 255) << side;
        EXPECT_FALSE(isWhite(left)) << side;
        // Indigo at the top, teal at the bottom.
        const auto top = icon.pixel(side / 2, inset + 1), bottom = icon.pixel(side / 2, side - inset - 2);
        EXPECT_EQ(Bitmap::alpha(top), 255) << side;
        EXPECT_EQ(Bitmap::alpha(bottom), 255) << side;
        EXPECT_GT(red(top), red(bottom)) << side;
        EXPECT_GT(green(bottom), green(top)) << side;
        EXPECT_GT(blue(top), green(top)) << side;
        if (side >= 128) {
            // The middle finger's trail runs through the centre, white.
            EXPECT_TRUE(isWhite(icon.pixel(side / 2, side / 2))) << side;
            std::size_t white = 0;
            for (auto p : icon.argb) white += isWhite(p);
            const double share = static_cast<double>(white) / static_cast<double>(icon.argb.size());
            EXPECT_GT(share, 0.03) << side;
            EXPECT_LT(share, 0.3) << side;
        }
    }
}

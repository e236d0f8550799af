#pragma once

#include "ArtKit/Bitmap.h"

#include <string>
#include <vector>

namespace tavrick {

// The menu bar item's own picture: three fingertips sweeping upwards, drawn as a template, solid
// black on transparent, so that the tray can tint it for a light or a dark bar.
namespace MenuBarGlyph {

inline constexpr double width = 18.0;
inline constexpr double height = 16.0;

// At `scale` pixels a point: 18 by 16 pixels at 1, 36 by 32 at 2.
Bitmap render(double scale = 1.0);

} // namespace MenuBarGlyph

// The application's icon: the glyph in white on a rounded square that shades from indigo to
// teal, with the transparent margin around it that desktop icons keep.
namespace AppIcon {

Bitmap render(int pixels);

} // namespace AppIcon

// One picture the renderer writes, named as an icon set names its members.
struct IconFile {
    enum class Kind { appIcon, menuBarGlyph };
    std::string name;
    Kind kind = Kind::appIcon;
    int pixelWidth = 0;
    int pixelHeight = 0;

    Bitmap render() const;
};

namespace IconArt {

// The application icon at 16, 32, 128, 256 and 512 points, each also at twice the pixels
// ("icon_16x16.png", "icon_16x16@2x.png" ... "icon_512x512@2x.png"), then the menu bar glyph at
// one and two pixels a point ("MenuBarGlyph.png", "MenuBarGlyph@2x.png").
const std::vector<IconFile>& files();

} // namespace IconArt

} // namespace tavrick

#include "ArtKit/IconArt.h"

#include <cairo.h>

#include <cmath>
#include <cstring>
#include <numbers>

namespace tavrick {

namespace {

struct RGBA {
    double red, green, blue, alpha;
};

// A canvas of `w` by `h` pixels, transparent, whose pixels become a Bitmap at the end.
class Canvas {
public:
    Canvas(int w, int h) : surface_(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h)), cr_(cairo_create(surface_)) {}
    ~Canvas() {
        cairo_destroy(cr_);
        cairo_surface_destroy(surface_);
    }
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    cairo_t* cr() { return cr_; }

    Bitmap bitmap() {
        cairo_surface_flush(surface_);
        Bitmap out;
        out.width = cairo_image_surface_get_width(surface_);
        out.height = cairo_image_surface_get_height(surface_);
        out.argb.resize(static_cast<std::size_t>(out.width) * out.height);
        const auto* data = cairo_image_surface_get_data(surface_);
        const int stride = cairo_image_surface_get_stride(surface_);
        if (!data) return Bitmap{};
        for (int y = 0; y < out.height; ++y) {
            std::memcpy(out.argb.data() + static_cast<std::size_t>(y) * out.width, data + static_cast<std::ptrdiff_t>(y) * stride,
                        static_cast<std::size_t>(out.width) * 4);
        }
        return out;
    }

private:
    cairo_surface_t* surface_;
    cairo_t* cr_;
};

// The glyph in its own 18 by 16 point box: three fingers, each a round tip with a trail below it
// that tells the sweep, the middle one a little ahead of the others.
void drawGlyph(cairo_t* cr, RGBA colour) {
    cairo_set_source_rgba(cr, colour.red, colour.green, colour.blue, colour.alpha);
    struct Finger {
        double x, tipY, trailEnd;
    };
    // Trails two points wide on whole points stay crisp at one and two pixels a point.
    constexpr Finger fingers[] = {{4.0, 5.4, 13.4}, {9.0, 3.6, 14.4}, {14.0, 5.4, 13.4}};
    constexpr double tipRadius = 2.4;
    constexpr double trailWidth = 2.0;
    for (const auto& f : fingers) {
        cairo_new_path(cr);
        cairo_arc(cr, f.x, f.tipY, tipRadius, 0, 2 * std::numbers::pi);
        cairo_fill(cr);
        cairo_set_line_width(cr, trailWidth);
        cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
        cairo_move_to(cr, f.x, f.tipY);
        cairo_line_to(cr, f.x, f.trailEnd);
        cairo_stroke(cr);
    }
}

// A square with rounded corners, the corner `radius` a share of the side.
void roundedSquare(cairo_t* cr, double x, double y, double side, double radius) {
    const double r = radius;
    cairo_new_path(cr);
    cairo_arc(cr, x + side - r, y + r, r, -std::numbers::pi / 2, 0);
    cairo_arc(cr, x + side - r, y + side - r, r, 0, std::numbers::pi / 2);
    cairo_arc(cr, x + r, y + side - r, r, std::numbers::pi / 2, std::numbers::pi);
    cairo_arc(cr, x + r, y + r, r, std::numbers::pi, 3 * std::numbers::pi / 2);
    cairo_close_path(cr);
}

} // namespace

Bitmap MenuBarGlyph::render(double scale) {
    const int w = static_cast<int>(std::lround(width * scale));
    const int h = static_cast<int>(std::lround(height * scale));
    Canvas canvas(w, h);
    cairo_scale(canvas.cr(), scale, scale);
    drawGlyph(canvas.cr(), {0, 0, 0, 1});
    return canvas.bitmap();
}

Bitmap AppIcon::render(int pixels) {
    Canvas canvas(pixels, pixels);
    cairo_t* cr = canvas.cr();
    const double side = pixels;
    // Desktop icons leave about a tenth of the side free around the body.
    const double margin = side * 0.1;
    const double body = side - 2 * margin;
    const double radius = body * 0.225;

    // A soft shadow under the body, left out at the smallest sizes where it would only blur.
    if (pixels >= 64) {
        for (int i = 3; i >= 1; --i) {
            const double spread = side * 0.006 * i;
            roundedSquare(cr, margin - spread, margin + side * 0.012 - spread, body + 2 * spread, radius + spread);
            cairo_set_source_rgba(cr, 0, 0, 0, 0.07);
            cairo_fill(cr);
        }
    }

    roundedSquare(cr, margin, margin, body, radius);
    cairo_pattern_t* shade = cairo_pattern_create_linear(0, margin, 0, margin + body);
    cairo_pattern_add_color_stop_rgb(shade, 0.0, 0.36, 0.29, 0.86);
    cairo_pattern_add_color_stop_rgb(shade, 1.0, 0.17, 0.70, 0.75);
    cairo_set_source(cr, shade);
    cairo_fill(cr);
    cairo_pattern_destroy(shade);

    // The glyph, white, filling about six tenths of the body and centred on it.
    const double glyphScale = body * 0.62 / MenuBarGlyph::width;
    cairo_save(cr);
    cairo_translate(cr, margin + (body - MenuBarGlyph::width * glyphScale) / 2,
                    margin + (body - MenuBarGlyph::height * glyphScale) / 2);
    cairo_scale(cr, glyphScale, glyphScale);
    drawGlyph(cr, {1, 1, 1, 1});
    cairo_restore(cr);
    return canvas.bitmap();
}

Bitmap IconFile::render() const {
    if (kind == Kind::menuBarGlyph) return MenuBarGlyph::render(pixelWidth / MenuBarGlyph::width);
    return AppIcon::render(pixelWidth);
}

const std::vector<IconFile>& IconArt::files() {
    static const std::vector<IconFile> all = [] {
        std::vector<IconFile> list;
        for (int points : {16, 32, 128, 256, 512}) {
            const std::string base = "icon_" + std::to_string(points) + "x" + std::to_string(points);
            list.push_back({base + ".png", IconFile::Kind::appIcon, points, points});
            list.push_back({base + "@2x.png", IconFile::Kind::appIcon, points * 2, points * 2});
        }
        const int w = static_cast<int>(MenuBarGlyph::width), h = static_cast<int>(MenuBarGlyph::height);
        list.push_back({"MenuBarGlyph.png", IconFile::Kind::menuBarGlyph, w, h});
        list.push_back({"MenuBarGlyph@2x.png", IconFile::Kind::menuBarGlyph, w * 2, h * 2});
        return list;
    }();
    return all;
}

} // namespace tavrick

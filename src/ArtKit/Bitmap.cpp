#include "ArtKit/Bitmap.h"

#include <cairo.h>

#include <cstring>
#include <memory>

namespace tavrick {

namespace {

struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;

cairo_status_t appendBytes(void* closure, const unsigned char* data, unsigned int length) {
    static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
    return CAIRO_STATUS_SUCCESS;
}

struct Reader {
    const std::string& bytes;
    std::size_t offset = 0;
};

cairo_status_t readBytes(void* closure, unsigned char* data, unsigned int length) {
    auto* reader = static_cast<Reader*>(closure);
    if (reader->bytes.size() - reader->offset < length) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, reader->bytes.data() + reader->offset, length);
    reader->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

} // namespace

std::optional<std::string> Bitmap::png(std::string* error) const {
    if (width <= 0 || height <= 0 || argb.size() != static_cast<std::size_t>(width) * height) {
        if (error) *error = "the picture has no pixels";
        return std::nullopt;
    }
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
        if (error) *error = cairo_status_to_string(cairo_surface_status(surface.get()));
        return std::nullopt;
    }
    cairo_surface_flush(surface.get());
    auto* data = cairo_image_surface_get_data(surface.get());
    const int stride = cairo_image_surface_get_stride(surface.get());
    for (int y = 0; y < height; ++y) {
        std::memcpy(data + static_cast<std::ptrdiff_t>(y) * stride, argb.data() + static_cast<std::size_t>(y) * width,
                    static_cast<std::size_t>(width) * sizeof(std::uint32_t));
    }
    cairo_surface_mark_dirty(surface.get());
    std::string bytes;
    const auto status = cairo_surface_write_to_png_stream(surface.get(), appendBytes, &bytes);
    if (status != CAIRO_STATUS_SUCCESS) {
        if (error) *error = cairo_status_to_string(status);
        return std::nullopt;
    }
    return bytes;
}

std::optional<Bitmap> Bitmap::fromPNG(const std::string& bytes) {
    Reader reader{bytes};
    Surface surface(cairo_image_surface_create_from_png_stream(readBytes, &reader));
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return std::nullopt;
    // Whatever the file's own format, the pixels come back as premultiplied ARGB.
    Bitmap bitmap;
    bitmap.width = cairo_image_surface_get_width(surface.get());
    bitmap.height = cairo_image_surface_get_height(surface.get());
    Surface converted(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, bitmap.width, bitmap.height));
    cairo_t* cr = cairo_create(converted.get());
    cairo_set_source_surface(cr, surface.get(), 0, 0);
    cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
    cairo_paint(cr);
    cairo_destroy(cr);
    cairo_surface_flush(converted.get());
    const auto* data = cairo_image_surface_get_data(converted.get());
    const int stride = cairo_image_surface_get_stride(converted.get());
    bitmap.argb.resize(static_cast<std::size_t>(bitmap.width) * bitmap.height);
    for (int y = 0; y < bitmap.height; ++y) {
        std::memcpy(bitmap.argb.data() + static_cast<std::size_t>(y) * bitmap.width,
                    data + static_cast<std::ptrdiff_t>(y) * stride, static_cast<std::size_t>(bitmap.width) * 4);
    }
    return bitmap;
}

} // namespace tavrick

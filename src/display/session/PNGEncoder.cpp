// SPDX-License-Identifier: Apache-2.0
#include "display/session/PNGEncoder.h"

#include <png.h>
#include <zlib.h>

#include <csetjmp>

namespace dorvane {
namespace {

constexpr std::size_t bytesPerPixel = 4;

void append(png_structp png, png_bytep bytes, png_size_t count) noexcept {
    auto& out = *static_cast<Bytes*>(png_get_io_ptr(png));
    out.insert(out.end(), bytes, bytes + count);
}

// The caller hears of a failure by the empty result; the library's own words would go to standard error.
[[noreturn]] void leave(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void ignore(png_structp, png_const_charp) {}

/// The library leaves by longjmp when it fails, so nothing here may need a destructor. False on failure.
bool writeImage(png_structp png, png_infop info, const FrameImage& image) {
    if (setjmp(png_jmpbuf(png)) != 0) return false;
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
    png_set_compression_level(png, Z_BEST_SPEED);
    png_set_compression_strategy(png, Z_RLE);
    png_write_info(png, info);
    png_set_filler(png, 0, PNG_FILLER_AFTER);  // drops the unused fourth byte
    png_set_bgr(png);
    const auto* row = image.pixels.data();
    for (int y = 0; y < image.height; ++y, row += static_cast<std::size_t>(image.width) * bytesPerPixel)
        png_write_row(png, row);
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

Bytes encodePNG(const FrameImage& image) {
    if (image.width <= 0 || image.height <= 0) return {};
    const auto pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
    if (image.pixels.size() < pixels * bytesPerPixel) return {};
    Bytes out;
    out.reserve(pixels / 2);  // more than a desktop needs, so that it seldom grows
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, leave, ignore);
    png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
    if (info != nullptr) png_set_write_fn(png, &out, append, nullptr);
    const bool isWritten = info != nullptr && writeImage(png, info, image);
    png_destroy_write_struct(&png, &info);
    return isWritten ? out : Bytes{};
}

}  // namespace dorvane

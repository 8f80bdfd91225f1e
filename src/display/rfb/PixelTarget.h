// SPDX-License-Identifier: Apache-2.0
// Where decoded pixels go, and single pixels on their way there.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "base/Bytes.h"

namespace dorvane {

// A pixel is blue, green, red, 0 in memory; on a little-endian host that is the number 0x00RRGGBB.
static_assert(std::endian::native == std::endian::little);

/// A rectangle of `bgra32` pixels inside somebody's buffer. Whoever makes it has checked its size.
struct PixelTarget {
    std::uint8_t* pixels = nullptr;
    std::size_t stride = 0;  // bytes from row to row

    std::uint8_t* row(std::size_t y) const { return pixels + y * stride; }
    PixelTarget at(std::size_t x, std::size_t y) const { return {row(y) + x * 4, stride}; }
};

inline std::uint32_t loadPixel(const std::uint8_t* p) {
    std::uint32_t value;
    std::memcpy(&value, p, sizeof value);
    return value;
}
inline void storePixel(std::uint8_t* p, std::uint32_t value) { std::memcpy(p, &value, sizeof value); }

/// One pixel of three bytes blue, green, red. Reads a fourth byte, which must be readable, and drops it.
inline std::uint32_t loadBGR(const std::uint8_t* p) { return loadPixel(p) & 0x00FFFFFFu; }
/// The same for red, green, blue.
inline std::uint32_t loadRGB(const std::uint8_t* p) { return __builtin_bswap32(loadPixel(p)) >> 8; }

/// Rows of small rectangles are a few dozen bytes: calling `memcpy` for each would cost more than it copies.
inline void copyPixels(std::uint8_t* out, const std::uint8_t* in, std::size_t count) {
    constexpr std::size_t smallCount = 64;
    if (count > smallCount) {
        std::memcpy(out, in, count * 4);
        return;
    }
    for (; count >= 4; count -= 4, in += 16, out += 16) std::memcpy(out, in, 16);
    for (; count > 0; --count, in += 4, out += 4) storePixel(out, loadPixel(in));
}

inline void fillPixels(std::uint8_t* out, std::size_t count, std::uint32_t pixel) {
    for (std::size_t i = 0; i < count; ++i) storePixel(out + i * 4, pixel);
}

}  // namespace dorvane

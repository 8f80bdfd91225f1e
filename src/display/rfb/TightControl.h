// SPDX-License-Identifier: Apache-2.0
// What the bytes at the head of a Tight rectangle mean, for the parser that measures it and the decoder.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dorvane::tight {

constexpr std::uint8_t copyFilter = 0;
constexpr std::uint8_t paletteFilter = 1;
constexpr std::uint8_t gradientFilter = 2;

/// Data below this size are sent as they are, without a length field.
constexpr std::size_t minimumCompressedBytes = 12;

constexpr bool isFill(std::uint8_t control) { return control >> 4 == 8; }
/// JPEG and what is beyond; never announced, so never answered.
constexpr bool isUnsupported(std::uint8_t control) { return (control & 0x80) != 0 && !isFill(control); }
constexpr bool hasFilterByte(std::uint8_t control) { return (control & 0x40) != 0; }
constexpr unsigned streamID(std::uint8_t control) { return (control >> 4) & 3u; }

/// With two colours a row is bits, and begins on a byte; otherwise one byte a pixel.
constexpr std::size_t paletteRowBytes(std::size_t width, std::size_t colorCount) {
    return colorCount == 2 ? (width + 7) / 8 : width;
}

}  // namespace dorvane::tight

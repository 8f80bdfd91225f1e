// SPDX-License-Identifier: Apache-2.0
// Packed pixels and palette indices to `bgra32`: the inner loops of the decoders.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace dorvane {

/// How far beyond the last pixel's bytes the input must be readable; what is there doesn't matter.
constexpr std::size_t expansionSlackBytes = 16;

/// `count` pixels of blue, green, red to `bgra32`.
void expandBGR(const std::uint8_t* in, std::uint8_t* out, std::size_t count);
/// `count` pixels of red, green, blue to `bgra32`.
void expandRGB(const std::uint8_t* in, std::uint8_t* out, std::size_t count);

/// One bit a pixel, the most significant first.
void expandBitmap(const std::uint8_t* in, std::uint8_t* out, std::size_t count, std::uint32_t zero,
                  std::uint32_t one);
/// One index a pixel, all of them checked.
void expandIndices(const std::uint8_t* in, std::uint8_t* out, std::size_t count,
                   const std::array<std::uint32_t, 256>& palette);

}  // namespace dorvane

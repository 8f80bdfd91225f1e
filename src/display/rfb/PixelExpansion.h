// SPDX-License-Identifier: Apache-2.0
// Three bytes a pixel to four: the inner loop of every uncompressed-colour form.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dorvane {

/// How far beyond the last pixel's bytes the input must be readable; what is there doesn't matter.
constexpr std::size_t expansionSlackBytes = 16;

/// `count` pixels of blue, green, red to `bgra32`.
void expandBGR(const std::uint8_t* in, std::uint8_t* out, std::size_t count);
/// `count` pixels of red, green, blue to `bgra32`.
void expandRGB(const std::uint8_t* in, std::uint8_t* out, std::size_t count);

}  // namespace dorvane

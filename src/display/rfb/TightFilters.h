// SPDX-License-Identifier: Apache-2.0
// One row of each Tight filter, undone into pixels.
#pragma once

#include <array>

#include "display/rfb/PixelTarget.h"

namespace dorvane {

/// One bit a pixel, the most significant first.
void expandBitmap(const std::uint8_t* in, std::uint8_t* out, std::size_t width, std::uint32_t zero,
                  std::uint32_t one);
/// One index a pixel, all of them checked.
void expandIndices(const std::uint8_t* in, std::uint8_t* out, std::size_t width,
                   const std::array<std::uint32_t, 256>& palette);
/// Each channel is the difference to a prediction from the pixels to the left, above, and above to the left.
/// `above` is the decoded row before this one, nullptr for the first.
void undoGradient(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* above, std::size_t width);

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/TightFilters.h"

#include <algorithm>

namespace dorvane {

void expandBitmap(const std::uint8_t* in, std::uint8_t* out, std::size_t width, std::uint32_t zero,
                  std::uint32_t one) {
    const auto difference = zero ^ one;
    const auto pixel = [&](unsigned bits, unsigned shift) {
        return zero ^ (difference & (0u - ((bits >> shift) & 1u)));
    };
    for (; width >= 8; width -= 8, out += 32) {
        const unsigned bits = *in++;
        for (unsigned i = 0; i < 8; ++i) storePixel(out + i * 4, pixel(bits, 7 - i));
    }
    for (unsigned i = 0; i < width; ++i) storePixel(out + i * 4, pixel(*in, 7 - i));
}

void expandIndices(const std::uint8_t* in, std::uint8_t* out, std::size_t width,
                   const std::array<std::uint32_t, 256>& palette) {
    for (std::size_t x = 0; x < width; ++x) storePixel(out + x * 4, palette[in[x]]);
}

void undoGradient(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* above, std::size_t width) {
    std::array<int, 3> left{}, aboveLeft{};
    for (std::size_t x = 0; x < width; ++x) {
        for (std::size_t c = 0; c < 3; ++c) {
            const int up = above ? above[x * 4 + 2 - c] : 0;
            const int prediction = std::clamp(left[c] + up - aboveLeft[c], 0, 255);
            left[c] = static_cast<std::uint8_t>(in[x * 3 + c] + prediction);
            aboveLeft[c] = up;
            out[x * 4 + 2 - c] = static_cast<std::uint8_t>(left[c]);
        }
        out[x * 4 + 3] = 0;
    }
}

}  // namespace dorvane

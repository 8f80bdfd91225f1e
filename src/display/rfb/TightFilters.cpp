// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/TightFilters.h"

#include <algorithm>
#include <array>

namespace dorvane {

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

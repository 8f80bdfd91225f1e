// SPDX-License-Identifier: Apache-2.0
// Tight's gradient filter, undone row by row.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dorvane {

/// Each channel is the difference to a prediction from the pixels to the left, above, and above to the left.
/// `above` is the decoded row before this one, nullptr for the first.
void undoGradient(const std::uint8_t* in, std::uint8_t* out, const std::uint8_t* above, std::size_t width);

}  // namespace dorvane

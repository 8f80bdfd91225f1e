// SPDX-License-Identifier: Apache-2.0
// Bytes from the system's secure generator, and comparison that does not leak where two secrets differ.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/Bytes.h"

namespace dorvane {

/// Fills `out`; never fails: when the library's generator does, the kernel's is asked directly.
void fillRandom(std::span<std::uint8_t> out);
Bytes randomBytes(std::size_t count);

/// False when the lengths differ or either is empty; otherwise compares every byte with no early exit.
bool equalInConstantTime(std::string_view a, std::string_view b);

}  // namespace dorvane

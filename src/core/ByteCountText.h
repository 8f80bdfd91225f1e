// SPDX-License-Identifier: Apache-2.0
// Byte counts as a person reads them.
#pragma once

#include <cstdint>
#include <string>

namespace dorvane {

/// Decimal units: "0 bytes", "1 byte", "999 bytes", "12 KB", "1.5 MB", "12.3 GB"; KB are whole, larger units
/// have one decimal, which is left out when it is zero.
std::string byteCountText(std::int64_t bytes);

}  // namespace dorvane

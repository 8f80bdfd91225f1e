// SPDX-License-Identifier: Apache-2.0
// Runs of zeros inside a deflate stream (RFC 1951), which an empty disk consists of.
#pragma once

#include "base/Bytes.h"

namespace dorvane {

/// How much of a file is compressed on its own, and how long a run of zeros is that costs nothing.
constexpr std::size_t archiveSegmentBytes = 1 << 20;

/// One segment of zeros as whole deflate blocks, beginning and ending between two bytes; about a kilobyte.
/// Made without a compressor, so that it is the same wherever and whenever an archive was made: a reader that
/// meets these bytes between two blocks knows their content without inflating them.
ByteView deflatedZeros();

/// The CRC-32 of what `crc` stands for followed by a segment of zeros.
std::uint32_t crcWithZeros(std::uint32_t crc);

bool isAllZero(ByteView bytes);

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// How a pixel is laid out on the wire (RFC 6143, section 7.4).
#pragma once

#include <cstdint>
#include <optional>

#include "base/Bytes.h"
#include "display/rfb/RFBByteReader.h"

namespace dorvane {

struct RFBPixelFormat {
    std::uint8_t bitsPerPixel = 0;
    std::uint8_t depth = 0;
    bool isBigEndian = false;
    bool isTrueColor = false;
    std::uint16_t redMax = 0, greenMax = 0, blueMax = 0;
    std::uint8_t redShift = 0, greenShift = 0, blueShift = 0;

    bool operator==(const RFBPixelFormat&) const = default;

    /// The only format that is asked for: in memory each pixel is the bytes blue, green, red, unused.
    static constexpr RFBPixelFormat bgra32() { return {32, 24, false, true, 255, 255, 255, 16, 8, 0}; }

    /// Its 16 bytes.
    Bytes encoded() const;
    /// Takes 16 bytes; absent, with the reader where it was, when there are fewer.
    static std::optional<RFBPixelFormat> read(RFBByteReader& reader);
};

}  // namespace dorvane

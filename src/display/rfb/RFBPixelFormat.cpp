// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBPixelFormat.h"

namespace dorvane {
namespace {

constexpr std::size_t encodedBytes = 16;
constexpr std::size_t paddingBytes = 3;

}  // namespace

Bytes RFBPixelFormat::encoded() const {
    Bytes out{bitsPerPixel, depth, isBigEndian, isTrueColor};
    appendBE16(out, redMax);
    appendBE16(out, greenMax);
    appendBE16(out, blueMax);
    out.insert(out.end(), {redShift, greenShift, blueShift});
    out.resize(encodedBytes);
    return out;
}

std::optional<RFBPixelFormat> RFBPixelFormat::read(RFBByteReader& reader) {
    if (reader.remaining() < encodedBytes) return std::nullopt;
    RFBPixelFormat format;
    format.bitsPerPixel = *reader.readUInt8();
    format.depth = *reader.readUInt8();
    format.isBigEndian = *reader.readUInt8() != 0;
    format.isTrueColor = *reader.readUInt8() != 0;
    format.redMax = *reader.readUInt16();
    format.greenMax = *reader.readUInt16();
    format.blueMax = *reader.readUInt16();
    format.redShift = *reader.readUInt8();
    format.greenShift = *reader.readUInt8();
    format.blueShift = *reader.readUInt8();
    reader.skip(paddingBytes);
    return format;
}

}  // namespace dorvane

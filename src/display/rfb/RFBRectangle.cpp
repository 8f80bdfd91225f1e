// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBRectangle.h"

#include "base/Localized.h"
#include "display/rfb/RFBEncoding.h"
#include "display/rfb/TightControl.h"

namespace dorvane {
namespace {

using Parsed = std::optional<RFBRectangle>;
using ParseError = RFBRectangle::ParseError;

constexpr std::size_t bytesPerScreen = 16;

std::size_t checkedSize(std::size_t bytes) {
    if (bytes > RFBRectangle::maximumBytes) throw ParseError::tooLarge(bytes);
    return bytes;
}

Parsed parseRaw(RFBByteReader& reader, const RFBRectangleHeader& header, std::size_t pixelBytes) {
    const auto pixels = reader.slice(checkedSize(pixelBytes));
    if (!pixels) return std::nullopt;
    return RFBRectangle{RFBRectangle::Raw{header, *pixels}};
}

Parsed parseCopyRect(RFBByteReader& reader, const RFBRectangleHeader& header) {
    const auto x = reader.readUInt16();
    const auto y = reader.readUInt16();
    if (!x || !y) return std::nullopt;
    return RFBRectangle{RFBRectangle::CopyRect{header, *x, *y}};
}

Parsed parseZRLE(RFBByteReader& reader, const RFBRectangleHeader& header, std::size_t pixelBytes) {
    checkedSize(pixelBytes);
    const auto length = reader.readUInt32();
    if (!length) return std::nullopt;
    const auto payload = reader.slice(checkedSize(*length));
    if (!payload) return std::nullopt;
    return RFBRectangle{RFBRectangle::ZRLE{header, *payload}};
}

/// The length field before compressed data: up to three bytes, 7 bits each, the least significant first.
std::optional<std::size_t> readCompactLength(RFBByteReader& reader) {
    std::size_t length = 0;
    for (int shift = 0; shift <= 14; shift += 7) {
        const auto byte = reader.readUInt8();
        if (!byte) return std::nullopt;
        length |= std::size_t(*byte & 0x7F) << shift;
        if ((*byte & 0x80) == 0) return length;
    }
    return std::nullopt;
}

/// The size of the data before compression; reads the filter byte and skips the palette.
std::optional<std::size_t> readTightDataSize(RFBByteReader& reader, const RFBRectangleHeader& header,
                                             bool hasFilter) {
    const auto width = std::size_t(header.width), height = std::size_t(header.height);
    if (!hasFilter) return width * height * 3;
    const auto filter = reader.readUInt8();
    if (!filter) return std::nullopt;
    switch (*filter) {
        case tight::copyFilter:
        case tight::gradientFilter:
            return width * height * 3;
        case tight::paletteFilter:
            break;
        default:
            throw ParseError::unsupportedTightVariant(*filter);
    }
    const auto count = reader.readUInt8();
    if (!count || !reader.skip((std::size_t(*count) + 1) * 3)) return std::nullopt;
    return tight::paletteRowBytes(width, *count + 1u) * height;
}

/// Walks the control structure without inflating: the decoder's zlib state must never see incomplete data.
bool skipTightPayload(RFBByteReader& reader, const RFBRectangleHeader& header) {
    const auto control = reader.readUInt8();
    if (!control) return false;
    if (tight::isFill(*control)) return reader.skip(3);
    if (tight::isUnsupported(*control)) throw ParseError::unsupportedTightVariant(*control >> 4);
    const auto size = readTightDataSize(reader, header, tight::hasFilterByte(*control));
    if (!size) return false;
    if (*size < tight::minimumCompressedBytes) return reader.skip(*size);
    const auto length = readCompactLength(reader);
    return length && reader.skip(*length);
}

Parsed parseTight(RFBByteReader& reader, const RFBRectangleHeader& header, std::size_t pixelBytes) {
    checkedSize(pixelBytes);
    const auto start = reader.position();
    if (!skipTightPayload(reader, header)) return std::nullopt;
    const auto size = reader.position() - start;
    reader.setPosition(start);
    return RFBRectangle{RFBRectangle::Tight{header, *reader.slice(size)}};
}

Parsed parseExtendedDesktopSize(RFBByteReader& reader, const RFBRectangleHeader& header) {
    const auto screens = reader.readUInt8();
    if (!screens || !reader.skip(3) || !reader.skip(*screens * bytesPerScreen)) return std::nullopt;
    return RFBRectangle{RFBExtendedDesktopSize{header.x, header.y, header.width, header.height, *screens}};
}

Parsed parseCursor(RFBByteReader& reader, const RFBRectangleHeader& header, std::size_t pixelBytes) {
    const auto maskBytes = (std::size_t(header.width) + 7) / 8 * std::size_t(header.height);
    const auto pixels = reader.slice(checkedSize(pixelBytes));
    const auto mask = pixels ? reader.slice(maskBytes) : std::nullopt;
    if (!mask) return std::nullopt;
    return RFBRectangle{RFBRectangle::Cursor{header, *pixels, *mask}};
}

Parsed parseContent(RFBByteReader& reader, const RFBRectangleHeader& header, const RFBPixelFormat& format) {
    const auto pixelBytes = header.pixelCount() * (format.bitsPerPixel / 8u);
    switch (RFBEncoding(header.encoding)) {
        case RFBEncoding::raw:
            return parseRaw(reader, header, pixelBytes);
        case RFBEncoding::copyRect:
            return parseCopyRect(reader, header);
        case RFBEncoding::zrle:
            return parseZRLE(reader, header, pixelBytes);
        case RFBEncoding::tight:
            return parseTight(reader, header, pixelBytes);
        case RFBEncoding::desktopSize:
            return RFBRectangle{RFBRectangle::DesktopSize{header.width, header.height}};
        case RFBEncoding::cursor:
            return parseCursor(reader, header, pixelBytes);
        case RFBEncoding::extendedDesktopSize:
            return parseExtendedDesktopSize(reader, header);
        case RFBEncoding::qemuExtendedKeyEvent:
            return RFBRectangle{RFBRectangle::QEMUExtendedKeyEventSupported{}};
        case RFBEncoding::compressLevel5:
            break;
    }
    throw ParseError::unsupportedEncoding(header.encoding);
}

}  // namespace

ParseError ParseError::unsupportedEncoding(std::int32_t encoding) {
    return {Case::unsupportedEncoding,
            localized("The VM display sent an unsupported encoding (%lld).", encoding)};
}

ParseError ParseError::unsupportedTightVariant(std::uint8_t variant) {
    return {
        Case::unsupportedTightVariant,
        localized("The VM display sent a Tight variant this client does not support (%lld).", int{variant})};
}

ParseError ParseError::tooLarge(std::size_t bytes) {
    return {Case::tooLarge,
            localized("The VM display sent a rectangle that is too large (%lld bytes).", bytes)};
}

std::optional<RFBRectangle> RFBRectangle::parse(RFBByteReader& reader, const RFBPixelFormat& pixelFormat) {
    const auto start = reader.position();
    const auto header = readHeader(reader);
    auto rectangle = header ? parseContent(reader, *header, pixelFormat) : std::nullopt;
    if (!rectangle) reader.setPosition(start);
    return rectangle;
}

}  // namespace dorvane

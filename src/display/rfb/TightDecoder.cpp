// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/TightDecoder.h"

#include <algorithm>

#include "base/Localized.h"
#include "display/rfb/PixelExpansion.h"
#include "display/rfb/TightControl.h"
#include "display/rfb/TightFilters.h"

namespace dorvane {
namespace {

using DecodeError = TightDecoder::DecodeError;
using Case = DecodeError::Case;

// Rows are inflated and expanded in pieces that stay in the processor's cache; one row is at most 196,605
// bytes.
constexpr std::size_t pieceBytes = 65'536;
constexpr std::size_t windowBytes = 262'144;
// Room beyond the data: zlib's fast loop runs only with 258 bytes to spare, and too much output is noticed.
constexpr std::size_t spareBytes = 1'024;
static_assert(spareBytes >= expansionSlackBytes);

DecodeError sizeMismatch(std::size_t expected, std::size_t actual) {
    return {Case::sizeMismatch,
            formatted("Tight data size mismatch: expected %lld, got %lld", expected, actual)};
}

DecodeError truncated() { return {Case::truncated, "Tight rectangle data ended early"}; }

template <typename T>
T required(std::optional<T> value) {
    if (!value) throw truncated();
    return *value;
}

std::size_t readCompactLength(RFBByteReader& reader) {
    std::size_t length = 0;
    for (int shift = 0; shift <= 14; shift += 7) {
        const auto byte = required(reader.readUInt8());
        length |= std::size_t(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) break;
    }
    return length;
}

}  // namespace

TightDecoder::TightDecoder()
    : inflated_(std::make_unique_for_overwrite<std::uint8_t[]>(windowBytes + spareBytes)) {}

Bytes TightDecoder::decode(int width, int height, ByteView payload) {
    Bytes pixels(std::size_t(width) * std::size_t(height) * 4);
    decode(width, height, payload, PixelTarget{pixels.data(), std::size_t(width) * 4});
    return pixels;
}

void TightDecoder::decode(int width, int height, ByteView payload, PixelTarget target) {
    RFBByteReader reader(payload);
    try {
        decodeRectangle(width, height, reader, target);
    } catch (const ZlibFailure& failure) {
        throw DecodeError(Case::zlibFailure, formatted("Tight zlib error %d", failure.code));
    }
    if (const auto left = reader.remaining(); left > 0)
        throw DecodeError(Case::trailingBytes, formatted("Tight rectangle left %lld undecoded bytes", left));
}

void TightDecoder::decodeRectangle(int width, int height, RFBByteReader& reader, PixelTarget target) {
    const auto control = required(reader.readUInt8());
    resetStreams(control);
    if (tight::isFill(control)) {
        readPalette(reader, 1);
        for (int y = 0; y < height; ++y)
            fillPixels(target.row(std::size_t(y)), std::size_t(width), palette_[0]);
        return;
    }
    if (tight::isUnsupported(control))
        throw DecodeError(Case::unsupportedCompression,
                          formatted("Tight compression type %d is not supported", control >> 4));
    const auto form = readForm(std::size_t(width), std::size_t(height), control, reader);
    if (form.dataSize() < tight::minimumCompressedBytes) {
        expandStored(form, reader, target);
        return;
    }
    const auto length = readCompactLength(reader);
    const auto data = required(reader.slice(length));
    inflateRows(form, stream(tight::streamID(control)), data, target);
}

void TightDecoder::resetStreams(std::uint8_t control) {
    for (unsigned id = 0; id < streams_.size(); ++id)
        if (((control >> id) & 1) != 0) streams_[id].reset();
}

TightDecoder::Form TightDecoder::readForm(std::size_t width, std::size_t height, std::uint8_t control,
                                          RFBByteReader& reader) {
    Form form{Filter::copy, width, height, width * 3, 0};
    if (!tight::hasFilterByte(control)) return form;
    const auto filter = required(reader.readUInt8());
    switch (filter) {
        case tight::copyFilter:
            return form;
        case tight::gradientFilter:
            form.filter = Filter::gradient;
            return form;
        case tight::paletteFilter:
            break;
        default:
            throw DecodeError(Case::unknownFilter, formatted("Tight unknown filter %d", int{filter}));
    }
    form.colorCount = required(reader.readUInt8()) + 1u;
    readPalette(reader, form.colorCount);
    form.filter = form.colorCount == 2 ? Filter::bitmap : Filter::palette;
    form.rowBytes = tight::paletteRowBytes(width, form.colorCount);
    return form;
}

void TightDecoder::readPalette(RFBByteReader& reader, std::size_t count) {
    const auto colors = required(reader.slice(count * 3));
    for (std::size_t i = 0; i < count; ++i) {
        const auto* color = colors.data() + i * 3;
        palette_[i] = std::uint32_t{color[0]} << 16 | std::uint32_t{color[1]} << 8 | color[2];
    }
}

void TightDecoder::expandStored(const Form& form, RFBByteReader& reader, PixelTarget target) {
    const auto data = required(reader.slice(form.dataSize()));
    // Copied to where something may be read beyond the last pixel.
    std::copy(data.begin(), data.end(), inflated_.get());
    expandRows(form, 0, form.rowBytes == 0 ? 0 : form.height, target);
}

void TightDecoder::inflateRows(const Form& form, InflateStream& stream, ByteView data, PixelTarget target) {
    const auto rowsPerPiece = std::max<std::size_t>(pieceBytes / form.rowBytes, 1);
    std::size_t produced = 0;
    stream.setInput(data);
    for (std::size_t y = 0; y < form.height;) {
        const auto rows = std::min(rowsPerPiece, form.height - y);
        const bool isLast = y + rows == form.height;
        const auto wanted = rows * form.rowBytes;
        const auto count = stream.inflate({inflated_.get(), wanted + (isLast ? spareBytes : 0)});
        produced += count;
        if (count != wanted) {
            produced += stream.discard({inflated_.get(), windowBytes});
            throw sizeMismatch(form.dataSize(), produced);
        }
        expandRows(form, y, rows, target);
        y += rows;
    }
}

void TightDecoder::expandRows(const Form& form, std::size_t y, std::size_t rows, PixelTarget target) {
    const auto* data = inflated_.get();
    if (form.filter == Filter::palette) checkIndices(form, rows * form.rowBytes);
    for (std::size_t end = y + rows; y < end; ++y, data += form.rowBytes) {
        auto* out = target.row(y);
        switch (form.filter) {
            case Filter::copy:
                expandRGB(data, out, form.width);
                break;
            case Filter::bitmap:
                expandBitmap(data, out, form.width, palette_[0], palette_[1]);
                break;
            case Filter::palette:
                expandIndices(data, out, form.width, palette_);
                break;
            case Filter::gradient:
                undoGradient(data, out, y > 0 ? target.row(y - 1) : nullptr, form.width);
                break;
        }
    }
}

void TightDecoder::checkIndices(const Form& form, std::size_t bytes) const {
    const auto* data = inflated_.get();
    std::uint8_t largest = 0;
    for (std::size_t i = 0; i < bytes; ++i) largest = std::max(largest, data[i]);
    if (largest >= form.colorCount)
        throw DecodeError(Case::paletteIndexOutOfRange, "Tight palette index out of range");
}

InflateStream& TightDecoder::stream(unsigned id) {
    auto& slot = streams_[id];
    if (!slot) slot.emplace();
    if (!slot->isInitialized()) {
        const ZlibFailure failure{slot->initializationResult()};
        slot.reset();
        throw failure;
    }
    return *slot;
}

}  // namespace dorvane

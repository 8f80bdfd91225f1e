// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/ZRLEDecoder.h"

#include <algorithm>

#include "base/Localized.h"
#include "display/rfb/PixelExpansion.h"

namespace dorvane {
namespace {

using DecodeError = ZRLEDecoder::DecodeError;
using Case = DecodeError::Case;

// Inflated in pieces that stay in the processor's cache, each topped up before a tile that might not be whole
// in it.
constexpr std::size_t windowBytes = 65'536;
// Palette run-length with 127 colours and plain runs of one pixel are the longest forms of a 64 by 64 tile;
// more only comes in an invalid one, which ends early.
constexpr std::size_t maximumTileBytes = 1 + 127 * 3 + 4'096 * 4 + 64;

constexpr std::uint8_t solid = 1, largestPacked = 16, plainRuns = 128, smallestPaletteRuns = 130;

DecodeError truncated() { return {Case::truncated, "ZRLE tile data ended early"}; }

DecodeError indexOutOfRange() { return {Case::paletteIndexOutOfRange, "ZRLE palette index out of range"}; }

constexpr unsigned bitsPerIndex(unsigned colorCount) { return colorCount == 2 ? 1 : colorCount <= 4 ? 2 : 4; }

/// One row of packed indices, the most significant bits first. Returns the largest index met.
template <unsigned bits>
unsigned unpackRow(const std::uint8_t* in, std::uint8_t* out, std::size_t width,
                   const std::uint32_t* palette) {
    constexpr std::size_t perByte = 8 / bits;
    constexpr unsigned mask = (1u << bits) - 1;
    unsigned largest = 0;
    const auto unpack = [&](unsigned byte, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            const unsigned index = (byte >> (8 - bits - i * bits)) & mask;
            largest = std::max(largest, index);
            storePixel(out + i * 4, palette[index]);
        }
    };
    for (; width >= perByte; width -= perByte, out += perByte * 4) unpack(*in++, perByte);
    if (width > 0) unpack(*in, width);
    return largest;
}

unsigned unpackRow(unsigned bits, const std::uint8_t* in, std::uint8_t* out, std::size_t width,
                   const std::uint32_t* palette) {
    switch (bits) {
        case 1:
            expandBitmap(in, out, width, palette[0], palette[1]);
            return 1;
        case 2:
            return unpackRow<2>(in, out, width, palette);
        default:
            return unpackRow<4>(in, out, width, palette);
    }
}

}  // namespace

ZRLEDecoder::ZRLEDecoder()
    : inflated_(std::make_unique_for_overwrite<std::uint8_t[]>(windowBytes + expansionSlackBytes)) {}

Bytes ZRLEDecoder::decode(int width, int height, ByteView payload) {
    Bytes pixels(std::size_t(width) * std::size_t(height) * 4);
    decode(width, height, payload, PixelTarget{pixels.data(), std::size_t(width) * 4});
    return pixels;
}

void ZRLEDecoder::decode(int width, int height, ByteView payload, PixelTarget target) {
    try {
        if (!stream_.isInitialized()) throw ZlibFailure{Z_STREAM_ERROR};
        stream_.setInput(payload);
        position_ = end_ = inflated_.get();
        decodeTiles(std::size_t(width), std::size_t(height), target);
        const auto left = available() + stream_.discard({inflated_.get(), windowBytes});
        if (left > 0)
            throw DecodeError(Case::trailingBytes,
                              formatted("ZRLE rectangle left %lld undecoded bytes", left));
    } catch (const ZlibFailure& failure) {
        throw DecodeError(Case::zlibFailure, formatted("ZRLE zlib error %d", failure.code));
    }
}

void ZRLEDecoder::decodeTiles(std::size_t width, std::size_t height, PixelTarget target) {
    for (std::size_t y = 0; y < height; y += tileSide)
        for (std::size_t x = 0; x < width; x += tileSide) {
            if (available() < maximumTileBytes) refill();
            decodeTile({std::min(width - x, tileSide), std::min(height - y, tileSide), target.at(x, y)});
        }
}

void ZRLEDecoder::refill() {
    if (stream_.isExhausted()) return;
    const auto kept = available();
    std::copy(position_, end_, inflated_.get());
    const auto count = stream_.inflate({inflated_.get() + kept, windowBytes - kept});
    position_ = inflated_.get();
    end_ = position_ + kept + count;
}

void ZRLEDecoder::decodeTile(const Tile& tile) {
    const auto subencoding = readByte();
    if (subencoding == 0) {
        decodeRaw(tile);
    } else if (subencoding == solid) {
        const auto color = readColor();
        for (std::size_t y = 0; y < tile.height; ++y) fillPixels(tile.target.row(y), tile.width, color);
    } else if (subencoding <= largestPacked) {
        decodePacked(tile, subencoding);
    } else if (subencoding == plainRuns) {
        decodePlainRuns(tile);
    } else if (subencoding >= smallestPaletteRuns) {
        decodePaletteRuns(tile, subencoding - 128u);
    } else {
        throw DecodeError(Case::badSubencoding, formatted("ZRLE unknown subencoding %d", int{subencoding}));
    }
}

void ZRLEDecoder::decodeRaw(const Tile& tile) {
    const auto* colors = take(tile.pixelCount() * 3);
    for (std::size_t y = 0; y < tile.height; ++y, colors += tile.width * 3)
        expandBGR(colors, tile.target.row(y), tile.width);
}

void ZRLEDecoder::decodePacked(const Tile& tile, unsigned colorCount) {
    readPalette(colorCount);
    const auto bits = bitsPerIndex(colorCount);
    const auto rowBytes = (tile.width * bits + 7) / 8;
    const auto* rows = take(rowBytes * tile.height);
    unsigned largest = 0;
    for (std::size_t y = 0; y < tile.height; ++y, rows += rowBytes)
        largest = std::max(largest, unpackRow(bits, rows, tile.target.row(y), tile.width, palette_.data()));
    if (largest >= colorCount) throw indexOutOfRange();
}

void ZRLEDecoder::decodePlainRuns(const Tile& tile) {
    const auto count = tile.pixelCount();
    for (std::size_t n = 0; n < count;) {
        const auto color = readColor();
        const auto run = readRun(count - n);
        std::fill_n(runs_.data() + n, run, color);
        n += run;
    }
    drawRuns(tile);
}

void ZRLEDecoder::decodePaletteRuns(const Tile& tile, unsigned colorCount) {
    readPalette(colorCount);
    const auto count = tile.pixelCount();
    for (std::size_t n = 0; n < count;) {
        const unsigned byte = readByte();
        const unsigned index = byte & 0x7F;
        if (index >= colorCount) throw indexOutOfRange();
        const auto run = (byte & 0x80) != 0 ? readRun(count - n) : 1;
        std::fill_n(runs_.data() + n, run, palette_[index]);
        n += run;
    }
    drawRuns(tile);
}

void ZRLEDecoder::drawRuns(const Tile& tile) const {
    for (std::size_t y = 0; y < tile.height; ++y)
        copyPixels(tile.target.row(y), reinterpret_cast<const std::uint8_t*>(runs_.data() + y * tile.width),
                   tile.width);
}

void ZRLEDecoder::readPalette(std::size_t count) {
    const auto* colors = take(count * 3);
    for (std::size_t i = 0; i < count; ++i) palette_[i] = loadBGR(colors + i * 3);
}

std::uint32_t ZRLEDecoder::readColor() { return loadBGR(take(3)); }

std::uint8_t ZRLEDecoder::readByte() { return *take(1); }

/// At most `maximum`; a longer run passes the tile's end.
std::size_t ZRLEDecoder::readRun(std::size_t maximum) {
    std::size_t run = 1;
    std::uint8_t byte = 255;
    while (byte == 255 && run <= maximum) {
        byte = readByte();
        run += byte;
    }
    if (run > maximum) throw truncated();
    return run;
}

const std::uint8_t* ZRLEDecoder::take(std::size_t count) {
    if (available() < count) throw truncated();
    position_ += count;
    return position_ - count;
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// ZRLE rectangles (RFC 6143, section 7.7.6) to pixels.
#pragma once

#include <array>
#include <memory>
#include <stdexcept>

#include "display/rfb/InflateStream.h"
#include "display/rfb/PixelTarget.h"

namespace dorvane {

/// One connection's zlib stream: sees every ZRLE rectangle of the connection, in order. After a throw the
/// stream's position is lost and the connection must end.
class ZRLEDecoder {
  public:
    class DecodeError : public std::runtime_error {
      public:
        enum class Case { zlibFailure, badSubencoding, trailingBytes, truncated, paletteIndexOutOfRange };
        DecodeError(Case which, const std::string& text) : std::runtime_error(text), which_(which) {}
        Case which() const { return which_; }

      private:
        Case which_;
    };

    ZRLEDecoder();

    /// `payload` comes without its length field. Returns `width` times `height` pixels without row padding,
    /// the fourth byte of each 0. Throws DecodeError.
    Bytes decode(int width, int height, ByteView payload);
    /// The same, drawn in place; after a throw the target may be partly drawn.
    void decode(int width, int height, ByteView payload, PixelTarget target);

  private:
    static constexpr std::size_t tileSide = 64;
    struct Tile {
        std::size_t width, height;
        PixelTarget target;
        std::size_t pixelCount() const { return width * height; }
    };

    void decodeTiles(std::size_t width, std::size_t height, PixelTarget target);
    void refill();
    void decodeTile(const Tile& tile);
    void decodeRaw(const Tile& tile);
    void decodePacked(const Tile& tile, unsigned colorCount);
    void decodePlainRuns(const Tile& tile);
    void decodePaletteRuns(const Tile& tile, unsigned colorCount);
    void readPalette(std::size_t count);
    std::uint32_t readColor();
    std::uint8_t readByte();
    std::size_t readRun(std::size_t maximum);
    const std::uint8_t* take(std::size_t count);
    std::size_t available() const { return std::size_t(end_ - position_); }
    void drawRuns(const Tile& tile) const;

    InflateStream stream_;
    std::unique_ptr<std::uint8_t[]> inflated_;
    const std::uint8_t* position_ = nullptr;  // what is inflated and not yet decoded
    const std::uint8_t* end_ = nullptr;
    std::array<std::uint32_t, 128> palette_{};
    std::array<std::uint32_t, tileSide * tileSide> runs_;  // a tile's pixels while runs cross its rows
};

}  // namespace dorvane

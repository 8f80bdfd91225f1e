// SPDX-License-Identifier: Apache-2.0
// Tight rectangles (RFB community wiki, "Tight Encoding") to pixels, without the JPEG form.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <stdexcept>

#include "display/rfb/InflateStream.h"
#include "display/rfb/PixelTarget.h"
#include "display/rfb/RFBByteReader.h"

namespace dorvane {

/// One connection's four zlib streams: sees every Tight rectangle of the connection, in order. After a throw
/// the streams' positions are lost and the connection must end.
class TightDecoder {
  public:
    class DecodeError : public std::runtime_error {
      public:
        enum class Case {
            zlibFailure,
            unsupportedCompression,
            unknownFilter,
            sizeMismatch,
            trailingBytes,
            truncated,
            paletteIndexOutOfRange,
        };
        DecodeError(Case which, const std::string& text) : std::runtime_error(text), which_(which) {}
        Case which() const { return which_; }

      private:
        Case which_;
    };

    TightDecoder();

    /// `payload` begins at the control byte. Returns `width` times `height` pixels without row padding, the
    /// fourth byte of each 0. Throws DecodeError.
    Bytes decode(int width, int height, ByteView payload);
    /// The same, drawn in place; after a throw the target may be half drawn.
    void decode(int width, int height, ByteView payload, PixelTarget target);

  private:
    enum class Filter { copy, gradient, bitmap, palette };
    /// What one rectangle says about its data before they begin.
    struct Form {
        Filter filter = Filter::copy;
        std::size_t width = 0, height = 0;
        std::size_t rowBytes = 0;
        unsigned colorCount = 0;

        std::size_t dataSize() const { return rowBytes * height; }
    };

    void decodeRectangle(int width, int height, RFBByteReader& reader, PixelTarget target);
    void resetStreams(std::uint8_t control);
    Form readForm(std::size_t width, std::size_t height, std::uint8_t control, RFBByteReader& reader);
    void readPalette(RFBByteReader& reader, std::size_t count);
    void expandStored(const Form& form, RFBByteReader& reader, PixelTarget target);
    void inflateRows(const Form& form, InflateStream& stream, ByteView data, PixelTarget target);
    void expandRows(const Form& form, std::size_t y, std::size_t rows, PixelTarget target);
    void checkIndices(const Form& form, std::size_t bytes) const;
    InflateStream& stream(unsigned id);

    std::array<std::optional<InflateStream>, 4> streams_;
    std::unique_ptr<std::uint8_t[]> inflated_;
    std::array<std::uint32_t, 256> palette_{};
};

}  // namespace dorvane

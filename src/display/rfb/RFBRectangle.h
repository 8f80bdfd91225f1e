// SPDX-License-Identifier: Apache-2.0
// One rectangle of a framebuffer update (RFC 6143, section 7.6; Tight and the pseudo-encodings as in the RFB
// community wiki).
#pragma once

#include <stdexcept>
#include <variant>

#include "display/rfb/RFBPixelFormat.h"

namespace dorvane {

struct RFBRectangleHeader {
    int x = 0, y = 0, width = 0, height = 0;
    std::int32_t encoding = 0;

    bool operator==(const RFBRectangleHeader&) const = default;
    std::size_t pixelCount() const { return std::size_t(width) * std::size_t(height); }
};

struct RFBExtendedDesktopSize {
    int reason = 0, result = 0, width = 0, height = 0, screenCount = 0;

    bool operator==(const RFBExtendedDesktopSize&) const = default;
};

/// The byte views point into the buffer that was parsed; nothing is copied.
struct RFBRectangle {
    struct Raw {
        RFBRectangleHeader header;
        ByteView pixels;
    };
    struct CopyRect {
        RFBRectangleHeader header;
        int sourceX = 0, sourceY = 0;
    };
    /// The payload without its length field.
    struct ZRLE {
        RFBRectangleHeader header;
        ByteView payload;
    };
    /// The payload begins at the compression control byte.
    struct Tight {
        RFBRectangleHeader header;
        ByteView payload;
    };
    struct DesktopSize {
        int width = 0, height = 0;
    };
    struct Cursor {
        RFBRectangleHeader header;
        ByteView pixels, mask;
    };
    struct QEMUExtendedKeyEventSupported {};

    using Content = std::variant<Raw, CopyRect, ZRLE, Tight, DesktopSize, RFBExtendedDesktopSize, Cursor,
                                 QEMUExtendedKeyEventSupported>;
    Content content;

    class ParseError : public std::runtime_error {
      public:
        enum class Case { unsupportedEncoding, unsupportedTightVariant, tooLarge };

        static ParseError unsupportedEncoding(std::int32_t encoding);
        static ParseError unsupportedTightVariant(std::uint8_t variant);
        static ParseError tooLarge(std::size_t bytes);

        Case which() const { return which_; }

      private:
        ParseError(Case which, const std::string& text) : std::runtime_error(text), which_(which) {}
        Case which_;
    };

    /// No rectangle has more bytes than this, on the wire or as pixels; a larger one is an error, not a wait.
    static constexpr std::size_t maximumBytes = 268'435'456;

    static constexpr std::size_t headerBytes = 12;
    /// Takes the bytes before every rectangle; absent, with the reader where it was, when there are fewer.
    static std::optional<RFBRectangleHeader> readHeader(RFBByteReader& reader) {
        const auto bytes = reader.slice(headerBytes);
        if (!bytes) return std::nullopt;
        const auto* p = bytes->data();
        return RFBRectangleHeader{loadBE16(p), loadBE16(p + 2), loadBE16(p + 4), loadBE16(p + 6),
                                  static_cast<std::int32_t>(loadBE32(p + 8))};
    }
    /// From a reader standing at a rectangle header. Absent, with the reader where it was, when the rectangle
    /// isn't complete yet. Throws ParseError.
    static std::optional<RFBRectangle> parse(RFBByteReader& reader, const RFBPixelFormat& pixelFormat);
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/TightDecoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

using testing::AllOf, testing::Property, testing::StrEq, testing::Throws;
using Case = TightDecoder::DecodeError::Case;

std::uint32_t colorful(int x, int y) {
    const auto byte = [](int value) { return static_cast<std::uint32_t>(value & 0xFF); };
    return byte(x * 7 + y * 13) | byte(x * y * 3) << 8 | byte(255 - x + y * 2) << 16;
}

Bytes compressed(std::uint8_t control, const Bytes& head, Deflater& deflater, const Bytes& plain) {
    const auto data = deflater.piece(plain);
    return Bytes{control} + head + compactLength(data.size()) + data;
}

/// What a server does before the gradient filter's differences are compressed.
Bytes gradient(const Bytes& bgra, int width, int height) {
    const auto rgb = packed(bgra, true);
    const auto at = [&](int x, int y, int c) {
        return x < 0 || y < 0 ? 0 : int{rgb[std::size_t((y * width + x) * 3 + c)]};
    };
    Bytes out;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                const int prediction =
                    std::clamp(at(x - 1, y, c) + at(x, y - 1, c) - at(x - 1, y - 1, c), 0, 255);
                out.push_back(static_cast<std::uint8_t>(at(x, y, c) - prediction));
            }
    return out;
}

TEST(TightDecoder, decodesEveryFormAtEverySize) {
    TightDecoder decoder;
    std::array<Deflater, 4> streams;
    // The last needs several pieces, and its rows don't fill them evenly.
    for (const auto& [width, height] : {std::pair{2, 2}, {4, 1}, {9, 6}, {64, 3}, {100, 50}, {333, 250}}) {
        const auto image = picture(width, height, colorful);
        EXPECT_EQ(decoder.decode(width, height, compressed(0x00, {}, streams[0], packed(image, true))),
                  image);
        EXPECT_EQ(decoder.decode(width, height, compressed(0x50, {0}, streams[1], packed(image, true))),
                  image);
        EXPECT_EQ(
            decoder.decode(width, height, compressed(0x60, {2}, streams[2], gradient(image, width, height))),
            image)
            << width;
    }
}

TEST(TightDecoder, decodesPalettes) {
    TightDecoder decoder;
    Deflater deflater;
    const Bytes palette{1, 2, 3, 4, 5, 6};
    // 9 columns: two bytes a row, and the unused bits are noise.
    const auto bits =
        decoder.decode(9, 6,
                       compressed(0x40, Bytes{1, 1} + palette, deflater,
                                  {0x80, 0xFF, 0x01, 0x7F, 0, 0, 0xFF, 0x80, 0xAA, 0, 0x55, 0x80}));
    const std::array<unsigned, 6> rows{0x101, 0x002, 0x000, 0x1FF, 0x154, 0x0AB};
    EXPECT_EQ(bits, picture(9, 6, [&](int x, int y) {
                  return (rows[std::size_t(y)] >> (8 - x)) & 1 ? 0x040506u : 0x010203u;
              }));

    Bytes everyColor, indices;
    for (unsigned i = 0; i < 256; ++i) {
        everyColor += Bytes{static_cast<std::uint8_t>(i), 0, 9};
        indices.push_back(static_cast<std::uint8_t>(255 - i));
    }
    EXPECT_EQ(
        decoder.decode(16, 16, compressed(0x40, Bytes{1, 255} + everyColor, deflater, indices)),
        picture(16, 16, [](int x, int y) { return static_cast<std::uint32_t>(255 - y * 16 - x) << 16 | 9; }));
    EXPECT_EQ(decoder.decode(3, 1, Bytes{0x40, 1, 0, 7, 8, 9, 0, 0, 0}),
              picture(3, 1, [](int, int) { return 0x070809u; }));
}

TEST(TightDecoder, fillsAndTakesSmallDataAsTheyAre) {
    TightDecoder decoder;
    EXPECT_EQ(decoder.decode(3, 2, Bytes{0x80, 1, 2, 3}), picture(3, 2, [](int, int) { return 0x010203u; }));
    EXPECT_EQ(decoder.decode(1, 3, Bytes{0x0F, 1, 2, 3, 4, 5, 6, 7, 8, 9}),
              (Bytes{3, 2, 1, 0, 6, 5, 4, 0, 9, 8, 7, 0}));
    EXPECT_EQ(decoder.decode(0, 5, Bytes{0x00}), Bytes());
    EXPECT_EQ(decoder.decode(5, 0, Bytes{0x40, 1, 1, 1, 1, 1, 2, 2, 2}), Bytes());
}

TEST(TightDecoder, resetsOnlyTheStreamsThatTheControlByteNames) {
    TightDecoder decoder;
    Deflater first, third, restarted;
    const auto image = picture(8, 8, colorful);
    const auto plain = packed(image, true);
    EXPECT_EQ(decoder.decode(8, 8, compressed(0x00, {}, first, plain)), image);
    EXPECT_EQ(decoder.decode(8, 8, compressed(0x20, {}, third, plain)), image);
    EXPECT_EQ(decoder.decode(8, 8, compressed(0x24, {}, restarted, plain)), image);
    EXPECT_EQ(decoder.decode(8, 8, compressed(0x00, {}, first, plain)), image);
    EXPECT_EQ(decoder.decode(8, 8, Bytes{0x84, 0, 0, 0}), Bytes(256));
    EXPECT_THROW(decoder.decode(8, 8, compressed(0x20, {}, third, plain)), TightDecoder::DecodeError);
}

TEST(TightDecoder, drawsInPlaceWithoutTouchingTheNeighbours) {
    TightDecoder decoder;
    Deflater deflater;
    const auto image = picture(5, 4, colorful);
    Bytes screen(9 * 8 * 4, 0xEE);
    for (const auto& payload : {compressed(0x00, {}, deflater, packed(image, true)),
                                compressed(0x40, {2}, deflater, gradient(image, 5, 4))}) {
        std::fill(screen.begin(), screen.end(), std::uint8_t{0xEE});
        decoder.decode(5, 4, payload, PixelTarget{screen.data(), 36}.at(2, 3));
        EXPECT_EQ(screen, picture(9, 8, [&](int x, int y) {
                      return x >= 2 && x < 7 && y >= 3 && y < 7 ? colorful(x - 2, y - 3) : 0xEEEEEEEEu;
                  }));
    }
}

TEST(TightDecoder, refusesBrokenRectangles) {
    Deflater deflater, tooLong, tooShort, farTooLong;
    const auto shortOfOne = compressed(0x00, {}, tooShort, Bytes(11));
    const auto longByOne = compressed(0x00, {}, tooLong, Bytes(13));
    const auto oversized = compressed(0x00, {}, farTooLong, Bytes(1'000'000));
    const auto badIndex = compressed(0x40, Bytes{1, 2} + Bytes(9), deflater, Bytes(11, 0) + Bytes{3});
    struct Row {
        int width, height;
        Bytes payload;
        Case which;
        std::string text;
    };
    const std::vector<Row> table{
        {1, 1, {}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x80, 1, 2}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x40}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x40, 1, 1, 0, 0, 0}, Case::truncated, "Tight rectangle data ended early"},
        {1, 1, {0x00, 1, 2}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x00, 0x85}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x00, 5, 1, 2}, Case::truncated, "Tight rectangle data ended early"},
        {9, 9, {0x90}, Case::unsupportedCompression, "Tight compression type 9 is not supported"},
        {9, 9, {0x40, 7}, Case::unknownFilter, "Tight unknown filter 7"},
        {9, 9, {0x00, 4, 1, 2, 3, 4}, Case::zlibFailure, "Tight zlib error -3"},
        {9, 9, {0x00, 0}, Case::sizeMismatch, "Tight data size mismatch: expected 243, got 0"},
        {2, 2, longByOne, Case::sizeMismatch, "Tight data size mismatch: expected 12, got 13"},
        {2, 2, shortOfOne, Case::sizeMismatch, "Tight data size mismatch: expected 12, got 11"},
        {2, 2, oversized, Case::sizeMismatch, "Tight data size mismatch: expected 12, got 1000000"},
        {12, 1, badIndex, Case::paletteIndexOutOfRange, "Tight palette index out of range"},
        {1, 1, {0x80, 1, 2, 3, 4, 5}, Case::trailingBytes, "Tight rectangle left 2 undecoded bytes"},
    };
    using Error = TightDecoder::DecodeError;
    for (const auto& row : table)
        EXPECT_THAT([&] { TightDecoder().decode(row.width, row.height, row.payload); },
                    Throws<Error>(
                        AllOf(Property(&Error::which, row.which), Property(&Error::what, StrEq(row.text)))));
}

}  // namespace
}  // namespace dorvane::test

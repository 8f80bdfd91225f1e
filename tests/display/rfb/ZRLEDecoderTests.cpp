// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/ZRLEDecoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

using testing::AllOf, testing::Property, testing::StrEq, testing::Throws;
using Case = ZRLEDecoder::DecodeError::Case;

std::uint32_t colorful(int x, int y) {
    return (static_cast<std::uint32_t>(x) * 2654435761u ^ static_cast<std::uint32_t>(y) * 40503u) & 0xFFFFFF;
}

Bytes color(std::uint32_t pixel) {
    return {static_cast<std::uint8_t>(pixel), static_cast<std::uint8_t>(pixel >> 8),
            static_cast<std::uint8_t>(pixel >> 16)};
}

Bytes run(std::size_t length) {
    Bytes out((length - 1) / 255, 255);
    out.push_back(static_cast<std::uint8_t>((length - 1) % 255));
    return out;
}

Bytes decoded(int width, int height, const Bytes& tiles) {
    ZRLEDecoder decoder;
    Deflater deflater;
    return decoder.decode(width, height, deflater.piece(tiles));
}

TEST(ZRLEDecoder, cutsARectangleIntoTiles) {
    // One colour a tile, so the picture shows where each tile lies.
    const auto tiles = Bytes{1} + color(1) + Bytes{1} + color(2) + Bytes{1} + color(3) + Bytes{1} + color(4);
    EXPECT_EQ(decoded(65, 65, tiles),
              picture(65, 65, [](int x, int y) { return 1u + (x >= 64) + 2 * (y >= 64); }));
    EXPECT_EQ(decoded(0, 7, {}), Bytes());
}

TEST(ZRLEDecoder, unpacksPalettes) {
    for (const int colorCount : {2, 3, 4, 5, 16}) {
        const int bits = colorCount == 2 ? 1 : colorCount <= 4 ? 2 : 4;
        for (const int width : {1, 7, 9, 64}) {
            const auto index = [&](int x, int y) { return (x * 5 + y * 3) % colorCount; };
            Bytes tile{static_cast<std::uint8_t>(colorCount)};
            for (int i = 0; i < colorCount; ++i) tile += color(static_cast<std::uint32_t>(i) * 0x10101);
            for (int y = 0; y < 3; ++y) {
                Bytes row(std::size_t((width * bits + 7) / 8));
                for (int x = 0; x < width; ++x)
                    row[std::size_t(x * bits / 8)] |=
                        static_cast<std::uint8_t>(index(x, y) << (8 - bits - x * bits % 8));
                tile += row;
            }
            EXPECT_EQ(
                decoded(width, 3, tile),
                picture(width, 3,
                        [&](int x, int y) { return static_cast<std::uint32_t>(index(x, y)) * 0x10101; }))
                << colorCount << " colours, width " << width;
        }
    }
}

TEST(ZRLEDecoder, followsRunsAcrossRows) {
    EXPECT_EQ(run(514), (Bytes{255, 255, 3}));
    const auto runs = Bytes{128} + color(5) + run(514) + color(6) + run(1) + color(7) + run(64 * 64 - 515);
    const auto expected = picture(64, 64, [](int x, int y) {
        const int n = y * 64 + x;
        return n < 514 ? 5u : n < 515 ? 6u : 7u;
    });
    EXPECT_EQ(decoded(64, 64, runs), expected);
    const auto paletted = Bytes{131} + color(5) + color(6) + color(7) + Bytes{0x80} + run(514) +
                          Bytes{0x01, 0x82} + run(64 * 64 - 515);
    EXPECT_EQ(decoded(64, 64, paletted), expected);
}

TEST(ZRLEDecoder, decodesTilesOfEveryLengthAcrossItsWindow) {
    // Long and short tiles in turn, so that tiles straddle the window's end in many ways; the last is a
    // narrow raw one.
    constexpr int width = 58 * 64 + 43;
    Bytes tiles;
    for (int tile = 0; tile < 59; ++tile) {
        if (tile % 3 == 0) {
            tiles += Bytes{1} + color(9);
        } else if (tile % 3 == 1) {
            tiles += Bytes{0} + packed(picture(std::min(64, width - tile * 64), 64, colorful), false);
        } else {
            tiles.push_back(128);
            for (int n = 0; n < 64 * 64; ++n) tiles += color(colorful(n % 64, n / 64)) + run(1);
        }
    }
    const auto image =
        picture(width, 64, [](int x, int y) { return x / 64 % 3 == 0 ? 9u : colorful(x % 64, y); });
    ZRLEDecoder decoder;
    Deflater deflater;
    for (int rectangle = 0; rectangle < 3; ++rectangle)
        ASSERT_EQ(decoder.decode(width, 64, deflater.piece(tiles)), image) << rectangle;
}

TEST(ZRLEDecoder, refusesBrokenRectangles) {
    struct Row {
        int width, height;
        Bytes tiles;
        Case which;
        std::string text;
    };
    const std::string early = "ZRLE tile data ended early", index = "ZRLE palette index out of range";
    const std::vector<Row> table{
        {1, 1, {}, Case::truncated, early},
        {1, 1, {0, 1, 2}, Case::truncated, early},
        {1, 1, {1, 1, 2}, Case::truncated, early},
        {8, 2, Bytes{2} + Bytes(6) + Bytes{0}, Case::truncated, early},
        {2, 1, Bytes{128} + color(1) + Bytes{0}, Case::truncated, early},
        {2, 1, Bytes{128} + color(1) + run(3), Case::truncated, early},
        {2, 1, Bytes{128} + color(1) + Bytes(40'000, 255), Case::truncated, early},
        {2, 1, Bytes{130} + Bytes(6) + Bytes{0x80, 2}, Case::truncated, early},
        {2, 1, Bytes{130} + Bytes(6) + Bytes{2}, Case::paletteIndexOutOfRange, index},
        {4, 1, Bytes{3} + Bytes(9) + Bytes{0x1B}, Case::paletteIndexOutOfRange, index},
        {1, 1, {17, 0, 0, 0}, Case::badSubencoding, "ZRLE unknown subencoding 17"},
        {1, 1, {129, 0, 0, 0}, Case::badSubencoding, "ZRLE unknown subencoding 129"},
        {1, 1, {1, 0, 0, 0, 5, 5}, Case::trailingBytes, "ZRLE rectangle left 2 undecoded bytes"},
        {1, 1, Bytes{1, 0, 0, 0} + Bytes(300'000), Case::trailingBytes,
         "ZRLE rectangle left 300000 undecoded bytes"},
    };
    using Error = ZRLEDecoder::DecodeError;
    for (const auto& row : table)
        EXPECT_THAT([&] { decoded(row.width, row.height, row.tiles); },
                    Throws<Error>(
                        AllOf(Property(&Error::which, row.which), Property(&Error::what, StrEq(row.text)))));
    ZRLEDecoder decoder;
    EXPECT_THROW(decoder.decode(1, 1, Bytes{1, 2, 3, 4}), ZRLEDecoder::DecodeError);
}

}  // namespace
}  // namespace dorvane::test

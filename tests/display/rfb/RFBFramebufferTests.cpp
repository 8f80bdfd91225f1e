// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBFramebuffer.h"

#include <gtest/gtest.h>

#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

std::uint32_t numbered(int x, int y) { return static_cast<std::uint32_t>(y * 256 + x + 1); }

RFBFramebuffer numberedFramebuffer(int width, int height) {
    RFBFramebuffer framebuffer;
    framebuffer.resize(width, height);
    framebuffer.applyRaw({0, 0, width, height, 0}, picture(width, height, numbered));
    return framebuffer;
}

Bytes content(const RFBFramebuffer& framebuffer) {
    return {framebuffer.pixels().begin(), framebuffer.pixels().end()};
}

TEST(RFBFramebuffer, keepsPixelsOnlyAtTheSameSize) {
    auto framebuffer = numberedFramebuffer(4, 3);
    framebuffer.resize(4, 3);
    EXPECT_EQ(content(framebuffer), picture(4, 3, numbered));
    framebuffer.resize(3, 4);
    EXPECT_EQ(content(framebuffer), Bytes(48));
    framebuffer.resize(-1, 5);
    EXPECT_EQ(framebuffer.width(), 0);
    EXPECT_FALSE(framebuffer.makeImage());
}

TEST(RFBFramebuffer, drawsOnlyWhatLiesInside) {
    for (const auto& header : {RFBRectangleHeader{2, 1, 4, 4, 0},
                               {0, 0, 9, 9, 0},
                               {-2, -1, 4, 3, 0},
                               {3, 2, 1, 1, 0},
                               {4, 0, 2, 2, 0},
                               {0, 3, 2, 2, 0}}) {
        RFBFramebuffer framebuffer;
        framebuffer.resize(4, 3);
        framebuffer.applyRaw(header, picture(header.width, header.height, numbered));
        EXPECT_EQ(content(framebuffer), picture(4, 3,
                                                [&](int x, int y) {
                                                    const int column = x - header.x, row = y - header.y;
                                                    const bool inside = column >= 0 && row >= 0 &&
                                                                        column < header.width &&
                                                                        row < header.height;
                                                    return inside ? numbered(column, row) : 0u;
                                                }))
            << header.x << "," << header.y;
    }
}

TEST(RFBFramebuffer, drawsRowsOfEveryLengthAndNothingBesideThem) {
    for (const int width : {1, 3, 4, 7, 16, 63, 64, 65, 70}) {
        RFBFramebuffer framebuffer;
        framebuffer.resize(72, 4);
        framebuffer.applyRaw({1, 1, width, 2, 0}, picture(width, 2, numbered));
        EXPECT_EQ(content(framebuffer),
                  picture(72, 4,
                          [&](int x, int y) {
                              return x >= 1 && x <= width && (y == 1 || y == 2) ? numbered(x - 1, y - 1) : 0u;
                          }))
            << width;
    }
}

TEST(RFBFramebuffer, drawsNothingOfTooFewPixels) {
    RFBFramebuffer framebuffer;
    framebuffer.resize(2, 2);
    framebuffer.applyRaw({0, 0, 2, 2, 0}, Bytes(15, 7));
    EXPECT_EQ(content(framebuffer), Bytes(16));
}

TEST(RFBFramebuffer, copiesOverlappingAndClippedRectangles) {
    struct Row {
        RFBRectangleHeader header;
        int sourceX, sourceY;
    };
    for (const auto& [header, sourceX, sourceY] :
         {Row{{0, 1, 8, 5, 1}, 0, 0}, Row{{0, 0, 8, 5, 1}, 0, 1}, Row{{1, 0, 7, 6, 1}, 0, 0},
          Row{{0, 0, 7, 6, 1}, 1, 0}, Row{{3, 2, 4, 3, 1}, 2, 1}, Row{{5, 3, 9, 9, 1}, 1, 1},
          Row{{0, 0, 9, 9, 1}, 5, 4}, Row{{2, 2, 4, 4, 1}, 60, 1}, Row{{60, 1, 4, 4, 1}, 0, 0}}) {
        auto framebuffer = numberedFramebuffer(8, 6);
        framebuffer.applyCopyRect(header, sourceX, sourceY);
        EXPECT_EQ(content(framebuffer), picture(8, 6,
                                                [&](int x, int y) {
                                                    const int column = x - header.x, row = y - header.y;
                                                    const int fromX = sourceX + column, fromY = sourceY + row;
                                                    const bool copied =
                                                        column >= 0 && row >= 0 && column < header.width &&
                                                        row < header.height && fromX < 8 && fromY < 6;
                                                    return copied ? numbered(fromX, fromY) : numbered(x, y);
                                                }))
            << header.x << "," << header.y << " from " << sourceX << "," << sourceY;
    }
}

TEST(RFBFramebuffer, makesPicturesThatStayAsTheyWere) {
    auto framebuffer = numberedFramebuffer(4, 3);
    const auto first = framebuffer.makeImage();
    framebuffer.applyCopyRect({0, 0, 4, 1, 1}, 0, 2);
    const auto second = framebuffer.makeImage();
    EXPECT_EQ(first->pixels, picture(4, 3, numbered));
    EXPECT_EQ(second->pixels, content(framebuffer));
    EXPECT_NE(first->pixels, second->pixels);
}

TEST(RFBFramebuffer, reusesDroppedPicturesWithoutStaleRows) {
    auto framebuffer = numberedFramebuffer(8, 6);
    std::vector<FramePointer> kept;
    for (int step = 0; step < 40; ++step) {
        const int y = step % 6;
        framebuffer.applyRaw({step % 8, y, 1, 1, 0}, be32(0xAABB0000u + unsigned(step)));
        if (step % 3 == 0)
            *framebuffer.target({0, (y + 2) % 6, 8, 1, 0}).pixels = static_cast<std::uint8_t>(step);
        if (step % 5 == 0) framebuffer.applyCopyRect({0, 0, 8, 2, 1}, 0, 3);
        kept.push_back(framebuffer.makeImage());
        ASSERT_EQ(kept.back()->pixels, content(framebuffer)) << step;
        if (step % 4 == 3) kept.erase(kept.begin(), kept.end() - 1);
    }
    framebuffer.resize(6, 8);
    kept.clear();
    EXPECT_EQ(framebuffer.makeImage()->pixels, Bytes(6 * 8 * 4));
}

TEST(RFBFramebuffer, pictureOutlivesIt) {
    FramePointer picture;
    {
        auto framebuffer = numberedFramebuffer(2, 2);
        picture = framebuffer.makeImage();
    }
    EXPECT_EQ(picture->pixels.size(), 16u);
}

}  // namespace
}  // namespace dorvane::test

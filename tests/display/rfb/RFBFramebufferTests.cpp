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
    framebuffer.applyRaw({0, 0, 3, 4, 0}, Bytes(47, 7));
    EXPECT_EQ(content(framebuffer), Bytes(48)) << "of too few pixels nothing is drawn";
    framebuffer.resize(-1, 5);
    EXPECT_EQ(framebuffer.width(), 0);
    EXPECT_FALSE(framebuffer.makeImage());
}

bool covers(const RFBRectangleHeader& header, int x, int y) {
    return x >= header.x && y >= header.y && x < header.x + header.width && y < header.y + header.height;
}

TEST(RFBFramebuffer, drawsRowsOfEveryLengthAndOnlyWhatLiesInside) {
    std::vector<RFBRectangleHeader> headers{{70, 2, 4, 4, 0}, {0, 0, 77, 9, 0}, {-2, -1, 4, 3, 0},
                                            {71, 3, 1, 1, 0}, {72, 0, 2, 2, 0}, {0, 4, 2, 2, 0}};
    for (const int width : {1, 3, 4, 7, 16, 63, 64, 65, 70}) headers.push_back({1, 1, width, 2, 0});
    for (const auto& header : headers) {
        RFBFramebuffer framebuffer;
        framebuffer.resize(72, 4);
        framebuffer.applyRaw(header, picture(header.width, header.height, numbered));
        const auto expected = [&](int x, int y) {
            return covers(header, x, y) ? numbered(x - header.x, y - header.y) : 0u;
        };
        EXPECT_EQ(content(framebuffer), picture(72, 4, expected))
            << header.x << "," << header.y << " width " << header.width;
    }
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
        const auto expected = [&](int x, int y) {
            const int fromX = sourceX + x - header.x, fromY = sourceY + y - header.y;
            return covers(header, x, y) && fromX < 8 && fromY < 6 ? numbered(fromX, fromY) : numbered(x, y);
        };
        EXPECT_EQ(content(framebuffer), picture(8, 6, expected))
            << header.x << "," << header.y << " from " << sourceX << "," << sourceY;
    }
}

TEST(RFBFramebuffer, makesPicturesThatStayAsTheyWereAndOutliveIt) {
    FramePointer first, second;
    {
        auto framebuffer = numberedFramebuffer(4, 3);
        first = framebuffer.makeImage();
        framebuffer.applyCopyRect({0, 0, 4, 1, 1}, 0, 2);
        second = framebuffer.makeImage();
        EXPECT_EQ(second->pixels, content(framebuffer));
    }
    EXPECT_EQ(first->pixels, picture(4, 3, numbered));
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

}  // namespace
}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "display/rfb/RFBClientMessage.h"
#include "display/rfb/RFBRectangle.h"
#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

using Message = RFBClientMessage;
constexpr auto format = RFBPixelFormat::bgra32();

TEST(RFBClientMessage, hasTheBytesOfTheProtocol) {
    const std::vector<std::pair<Message, Bytes>> table{
        {{Message::SetPixelFormat{format}},
         {0, 0, 0, 0, 32, 24, 0, 1, 0, 255, 0, 255, 0, 255, 16, 8, 0, 0, 0, 0}},
        {{Message::SetEncodings{{RFBEncoding::zrle, RFBEncoding::extendedDesktopSize}}},
         {2, 0, 0, 2, 0, 0, 0, 16, 0xFF, 0xFF, 0xFE, 0xCC}},
        {{Message::FramebufferUpdateRequest{true, -1, 70'000, 1'440, 900}},
         {3, 1, 0, 0, 0xFF, 0xFF, 0x05, 0xA0, 0x03, 0x84}},
        {{Message::PointerEvent{5, -5, 70'000}}, {5, 5, 0, 0, 0xFF, 0xFF}},
        {{Message::ClientCutText{"aé€"}}, {6, 0, 0, 0, 0, 0, 0, 3, 'a', 233, '?'}},
    };
    for (const auto& [message, bytes] : table) EXPECT_EQ(message.encoded(), bytes) << message.content.index();
}

const auto tightCopy11 = Bytes{0x40, 1, 2} + Bytes(9) + Bytes(11);  // palette of 3, 11 indices: stored
const auto tightCopy12 = Bytes{0x40, 1, 2} + Bytes(9) + Bytes{5} + Bytes(5);  // 12 indices: length and data
const auto tightBits = Bytes{0x40, 1, 1} + Bytes(6) + Bytes{3} + Bytes(3);  // two rows of one and a bit bytes

/// Each as one whole rectangle, and the index of its case.
const std::vector<std::pair<Bytes, std::size_t>> rectangles{
    {rectangle(1, 2, 3, 2, 0, Bytes(24)), 0},
    {rectangle(1, 2, 3, 2, 1, {0, 7, 0, 8}), 1},
    {rectangle(0, 0, 9, 9, 16, be32(4) + Bytes(4)), 2},
    {rectangle(0, 0, 300, 300, 7, {0x80, 1, 2, 3}), 3},
    {rectangle(0, 0, 11, 1, 7, tightCopy11), 3},
    {rectangle(0, 0, 12, 1, 7, tightCopy12), 3},
    {rectangle(0, 0, 9, 6, 7, tightBits), 3},
    {rectangle(0, 0, 1, 3, 7, Bytes{0x00} + Bytes(9)), 3},
    {rectangle(0, 0, 100, 100, 7, Bytes{0x40, 2} + compactLength(20'000) + Bytes(20'000)), 3},
    {rectangle(0, 0, 640, 480, -223), 4},
    {rectangle(1, 0, 640, 480, -308, Bytes(4)), 5},
    {rectangle(1, 0, 640, 480, -308, Bytes{2, 0, 0, 0} + Bytes(32)), 5},
    {rectangle(4, 4, 9, 3, -239, Bytes(108 + 6)), 6},
    {rectangle(0, 0, 0, 0, -258), 7},
};

TEST(RFBRectangle, isParsedOnlyWhenWhole) {
    for (const auto& [bytes, index] : rectangles) {
        const auto stream = Bytes(3) + bytes + Bytes{99};
        RFBByteReader whole(stream);
        whole.skip(3);
        const auto parsed = RFBRectangle::parse(whole, format);
        ASSERT_TRUE(parsed);
        EXPECT_EQ(parsed->content.index(), index);
        EXPECT_EQ(whole.remaining(), 1u) << index;
        for (std::size_t length = 3; length < stream.size() - 1; ++length) {
            RFBByteReader partial(ByteView(stream).first(length));
            partial.skip(3);
            ASSERT_FALSE(RFBRectangle::parse(partial, format)) << index << " at " << length;
            ASSERT_EQ(partial.position(), 3u);
        }
    }
}

TEST(RFBRectangle, refusesWhatWasNotAskedFor) {
    const std::vector<std::pair<Bytes, std::string>> table{
        {rectangle(0, 0, 1, 1, 5), "The VM display sent an unsupported encoding (5)."},
        {rectangle(0, 0, 1, 1, -251), "The VM display sent an unsupported encoding (-251)."},
        {rectangle(0, 0, 9, 9, 7, {0x90}),
         "The VM display sent a Tight variant this client does not support (9)."},
        {rectangle(0, 0, 9, 9, 7, {0xF0}),
         "The VM display sent a Tight variant this client does not support (15)."},
        {rectangle(0, 0, 9, 9, 7, {0x40, 3}),
         "The VM display sent a Tight variant this client does not support (3)."},
        {rectangle(0, 0, 65'535, 65'535, 0),
         "The VM display sent a rectangle that is too large (17179344900 bytes)."},
        {rectangle(0, 0, 1, 1, 16, be32(0xFFFFFFFF)),
         "The VM display sent a rectangle that is too large (4294967295 bytes)."},
    };
    for (const auto& [bytes, text] : table) {
        RFBByteReader reader(bytes);
        const auto parse = [&] { RFBRectangle::parse(reader, format); };
        EXPECT_THAT(parse, testing::ThrowsMessage<RFBRectangle::ParseError>(text));
    }
}

TEST(RFBRectangle, waitsForeverAtAnOverlongTightLength) {
    const auto bytes = rectangle(0, 0, 100, 100, 7, Bytes{0x00, 0xFF, 0xFF, 0xFF} + Bytes(100'000));
    RFBByteReader reader(bytes);
    EXPECT_FALSE(RFBRectangle::parse(reader, format));
}

}  // namespace
}  // namespace dorvane::test

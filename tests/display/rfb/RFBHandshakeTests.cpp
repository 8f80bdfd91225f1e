// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBHandshake.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

const auto version = toBytes("RFB 003.008\n");

Bytes serverInit(int width, int height, std::uint32_t nameLength) {
    return be16(unsigned(width)) + be16(unsigned(height)) + RFBPixelFormat::bgra32().encoded() +
           be32(nameLength);
}

TEST(RFBHandshake, goesThroughItsStatesByteByByte) {
    RFBHandshake handshake({RFBEncoding::raw});
    const auto script = toBytes("RFB 003.889\n") + Bytes{2, 16, 1} + be32(0) + serverInit(640, 480, 4) +
                        Bytes{'a', 0xFF, 'b', 'c'};
    Bytes waiting, answers;
    using Counts = std::vector<std::pair<std::size_t, std::size_t>>;  // bytes read, bytes answered by then
    const Counts expected{{12, 12}, {15, 13}, {19, 14}, {47, 42}};
    Counts answeredAt;
    for (std::size_t i = 0; i < script.size(); ++i) {
        waiting.push_back(script[i]);
        const auto before = answers.size();
        const auto taken = handshake.consume(waiting, answers);
        waiting.erase(waiting.begin(), waiting.begin() + std::ptrdiff_t(taken));
        if (answers.size() > before) answeredAt.emplace_back(i + 1, answers.size());
    }
    EXPECT_TRUE(handshake.isFinished());
    EXPECT_EQ(answeredAt, expected);
    EXPECT_EQ(answers, (version + Bytes{1, 1, 0, 0, 0, 0} + RFBPixelFormat::bgra32().encoded() +
                        Bytes{2, 0, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(handshake.serverInit().width, 640);
    EXPECT_EQ(handshake.serverInit().height, 480);
    EXPECT_EQ(handshake.serverInit().name, "a\uFFFDbc");
}

TEST(RFBHandshake, refusesWithTheReason) {
    const std::vector<std::pair<Bytes, std::string>> table{
        {toBytes("HTTP/1.1 400"), "Unexpected protocol version: HTTP/1.1 400"},
        {version + Bytes{0} + be32(4) + toBytes("busy"), "busy"},
        {version + Bytes{0} + be32(0), ""},
        {version + Bytes{1, 2}, "The VM display requires authentication, which Dorvane does not configure."},
        {version + Bytes{1, 1} + be32(1), "The VM display rejected the connection."},
        {version + Bytes{1, 1} + be32(0) + serverInit(1, 1, 0x7FFFFFFF), "Malformed ServerInit."},
        {version + Bytes{1, 1} + be32(0) + serverInit(65'535, 65'535, 1), "Malformed ServerInit."},
    };
    for (const auto& [script, reason] : table) {
        RFBHandshake handshake({});
        Bytes answers;
        const auto consume = [&, &script = script] { handshake.consume(script, answers); };
        EXPECT_THAT(consume, testing::ThrowsMessage<RFBConnectionError>(
                                 "The VM display connection could not be established. " + reason));
    }
}

}  // namespace
}  // namespace dorvane::test

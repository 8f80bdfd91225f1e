// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "display/rfb/RFBConnectionError.h"
#include "display/rfb/WireBuilder.h"

namespace dorvane::test {
namespace {

class EventLog : public RFBStreamHandler {
  public:
    std::vector<std::string> events;

    void updateBegan(int rectangleCount) override {
        events.push_back("began " + std::to_string(rectangleCount));
    }
    void updateFinished(bool didTouchPixels) override {
        events.push_back(didTouchPixels ? "finished, touched" : "finished");
    }
    void desktopResized(int width, int height) override {
        events.push_back("resized " + std::to_string(width) + "x" + std::to_string(height));
    }
    void extendedKeyEventsSupported() override { events.push_back("extended keys"); }
    void cursorReceived() override { events.push_back("cursor"); }
};

std::uint32_t shaded(int x, int y) { return static_cast<std::uint32_t>(x * 31 + y * 1009) & 0xFFFFFF; }

struct Client {
    RFBFramebuffer framebuffer;
    EventLog log;
    RFBStream stream{framebuffer, log};

    Client(int width, int height) { framebuffer.resize(width, height); }
    void feedInPieces(ByteView bytes, std::size_t size) {
        for (; !bytes.empty(); bytes = bytes.subspan(std::min(size, bytes.size())))
            stream.feed(bytes.first(std::min(size, bytes.size())));
    }
    Bytes pixels() const { return {framebuffer.pixels().begin(), framebuffer.pixels().end()}; }
};

struct Session {
    Bytes bytes;
    std::vector<std::string> events;
    Bytes screen;
};

/// Everything that a server may send, with raw rectangles large enough to be received in place.
Session everything() {
    constexpr int width = 400, height = 200;
    Deflater zrle, tight;
    const auto zrlePayload = zrle.piece(Bytes{1, 1, 2, 3});
    const auto tightData = tight.piece(packed(picture(40, 20, shaded), true));
    const auto whole = picture(width, height, shaded),
               part = picture(380, 100, [](int x, int y) { return shaded(y, x); });
    Session session;
    session.bytes =
        update({rectangle(0, 0, 0, 0, -258),
                rectangle(0, 0, width, height, -308, Bytes{1, 0, 0, 0} + Bytes(16))}) +
        Bytes{2} + update({rectangle(0, 0, width, height, 0, whole)}) + Bytes{3, 0, 0, 0} + be32(5) +
        toBytes("hello") +
        update({rectangle(10, 50, 380, 100, 0, part), rectangle(0, 10, 20, 10, 1, {0, 15, 0, 60}),
                rectangle(3, 3, 30, 30, 16, be32(std::uint32_t(zrlePayload.size())) + zrlePayload)}) +
        update({}) +
        update({rectangle(380, 190, 40, 20, 7, Bytes{0} + compactLength(tightData.size()) + tightData),
                rectangle(390, 195, 2, 2, 0, Bytes(16, 0x55)), rectangle(1, 1, 8, 1, -239, Bytes(33))}) +
        update({rectangle(5, 5, 8, 1, -239, Bytes(33))});
    session.events = {"began 2",           "extended keys",     "finished", "began 1", "finished, touched",
                      "began 3",           "finished, touched", "began 0",  "began 3", "cursor",
                      "finished, touched", "began 1",           "cursor",   "finished"};
    session.screen = picture(width, height, [&](int x, int y) -> std::uint32_t {
        const auto before = [](int a, int b) {
            return a >= 10 && a < 390 && b >= 50 && b < 150 ? shaded(b - 50, a - 10) : shaded(a, b);
        };
        if (x >= 390 && x < 392 && y >= 195 && y < 197) return 0x55555555;
        if (x >= 380 && y >= 190) return shaded(x - 380, y - 190);
        if (x >= 3 && x < 33 && y >= 3 && y < 33) return 0x030201;
        if (x < 20 && y >= 10 && y < 20) return before(x + 15, y + 50);
        return before(x, y);
    });
    return session;
}

TEST(RFBStream, drawsTheSameHoweverTheBytesArrive) {
    const auto session = everything();
    for (const std::size_t size : {std::size_t{1}, std::size_t{3}, std::size_t{17}, std::size_t{1'000},
                                   std::size_t{99'991}, session.bytes.size()}) {
        Client client(400, 200);
        client.feedInPieces(session.bytes, size);
        EXPECT_EQ(client.log.events, session.events) << size;
        EXPECT_TRUE(client.pixels() == session.screen) << size;
    }
}

TEST(RFBStream, receivesLargeRawRectanglesInPlace) {
    Client client(800, 200);
    const auto bytes = update({rectangle(10, 50, 780, 100, 0, Bytes(312'000, 7))});
    client.stream.feed(ByteView(bytes).first(100));
    const auto pixels = client.framebuffer.pixels();
    const auto spans = client.stream.prepare();
    std::size_t inPlace = 0;
    for (const auto& span : spans.first(spans.size() - 1)) {
        const auto* memory = static_cast<const std::uint8_t*>(span.iov_base);
        EXPECT_GE(memory, pixels.data());
        EXPECT_LE(memory + span.iov_len, pixels.data() + pixels.size());
        inPlace += span.iov_len;
    }
    EXPECT_EQ(inPlace, bytes.size() - 100);
    EXPECT_LT(spans.back().iov_len, 1'000u) << "for what follows";
    client.stream.feed(ByteView(bytes).subspan(100));
    EXPECT_EQ(client.log.events.back(), "finished, touched");
}

TEST(RFBStream, resizesOnlyToAnotherSize) {
    Client client(8, 8);
    client.stream.feed(update({rectangle(0, 0, 8, 8, -223), rectangle(0, 0, 0, 9, -223),
                               rectangle(0, 0, 4, 2, 0, Bytes(32, 9)), rectangle(2, 0, 4, 2, -308, Bytes(4)),
                               rectangle(0, 0, 4, 2, -223)}));
    EXPECT_EQ(client.log.events, (std::vector<std::string>{"began 5", "resized 4x2", "finished, touched"}));
    EXPECT_EQ(client.pixels(), Bytes(32));
}

TEST(RFBStream, dropsACutTextOfAnyLengthAsItComes) {
    Client client(1, 1);
    client.stream.feed(Bytes{3, 0, 0, 0} + be32(30'000'000));
    for (int i = 0; i < 30; ++i) client.stream.feed(Bytes(1'000'000, 2));
    EXPECT_EQ(client.log.events.size(), 0u);
    client.stream.feed(update({}));
    EXPECT_EQ(client.log.events, (std::vector<std::string>{"began 0"}));
}

TEST(RFBStream, endsAtWhatItCannotRead) {
    const std::string prefix = "The VM display connection could not be established. ";
    const std::vector<std::pair<Bytes, std::string>> table{
        {{1}, prefix + "The VM display sent an unexpected colour map."},
        {{9}, prefix + "Unknown message type 9 from the VM display."},
        {update({rectangle(0, 0, 1, 1, 5)}), "The VM display sent an unsupported encoding (5)."},
        {update({rectangle(0, 0, 65'535, 65'535, -223)}),
         "The VM display sent a rectangle that is too large (17179344900 bytes)."},
        {update({rectangle(0, 0, 9, 9, 7, {0x00, 3, 9, 9, 9})}), "Tight zlib error -3"},
        {update({rectangle(0, 0, 9, 9, 16, be32(0))}), "ZRLE tile data ended early"},
    };
    for (const auto& [bytes, text] : table) {
        Client client(16, 16);
        const auto feed = [&, &bytes = bytes] { client.stream.feed(bytes); };
        EXPECT_THAT(feed, testing::ThrowsMessage<std::exception>(text));
    }
}

}  // namespace
}  // namespace dorvane::test

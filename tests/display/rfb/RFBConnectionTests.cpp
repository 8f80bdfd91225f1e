// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBConnection.h"

#include <gtest/gtest.h>

#include "display/rfb/WireBuilder.h"
#include "runtime/Sockets.h"
#include "runtime/StreamConnection.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

constexpr int screenWidth = 40, screenHeight = 30;
const auto serverInit =
    be16(screenWidth) + be16(screenHeight) + RFBPixelFormat::bgra32().encoded() + be32(4) + toBytes("demo");
constexpr std::size_t setupBytes = 20 + 4 + 9 * 4;  // setPixelFormat and setEncodings
constexpr std::size_t requestBytes = 10;
const Bytes fullRequest{3, 0, 0, 0, 0, 0, 0, screenWidth, 0, screenHeight};
const Bytes incrementalRequest{3, 1, 0, 0, 0, 0, 0, screenWidth, 0, screenHeight};

/// A server that does what the test tells it, byte by byte, on the same thread.
class FakeServer {
  public:
    FakeServer(const Runtime& runtime, const std::string& path)
        : listener_(runtime.makeQueue("server"), listenUnixSocket(path), AF_UNIX) {}
    ~FakeServer() {
        listener_.close();
        if (peer_) peer_->close();
    }

    Task<void> accept() { peer_ = co_await listener_.accept(); }
    Task<void> write(Bytes bytes) { co_await peer_->write(bytes); }
    Task<Bytes> expect(std::size_t count) {
        while (received_.size() < count) {
            const auto got = co_await peer_->read(received_, 4'096);
            if (got == 0) throw std::runtime_error("the client has gone");
        }
        Bytes front(received_.begin(), received_.begin() + std::ptrdiff_t(count));
        received_.erase(received_.begin(), received_.begin() + std::ptrdiff_t(count));
        co_return front;
    }
    /// Up to the first message of another kind; returns how many there were.
    Task<int> passOverPointerEvents() {
        for (int count = 0;; ++count) {
            const auto event = co_await expect(6);
            if (event[0] == 5) continue;
            received_.insert(received_.begin(), event.begin(), event.end());
            co_return count;
        }
    }
    /// Whether the client has closed its end, once it has said nothing more.
    Task<bool> sawEnd() {
        Bytes more;
        const auto got = co_await peer_->read(more, 4'096);
        co_return got == 0;
    }
    Task<Bytes> shakeHands(Bytes name) {
        const Bytes types{1, 1};
        co_await accept();
        co_await write(toBytes("RFB 003.008\n"));
        co_await expect(12);
        co_await write(types);
        co_await expect(1);
        co_await write(be32(0));
        co_await expect(1);
        co_await write(std::move(name));
        const auto setup = co_await expect(setupBytes);
        const auto request = co_await expect(requestBytes);
        co_return setup + request;
    }
    void hangUp() { peer_->close(); }

  private:
    StreamListener listener_;
    std::shared_ptr<StreamConnection> peer_;
    Bytes received_;
};

class RFBConnectionTest : public testing::Test {
  protected:
    TestRuntime host_{TestRuntime::TimeMode::manual};
    TemporaryDirectory directory_;
    std::string path_ = directory_ / "v.sock";
    LogCapture log_;
    std::optional<FakeServer> server_;
    std::shared_ptr<RFBConnection> connection_;
    std::vector<FramePointer> frames_;
    std::function<void()> afterFrame_;
    std::vector<std::pair<int, int>> sizes_;
    std::vector<std::string> ends_;
    OneShot<void> connected_;
    TaskHandle connecting_;

    ~RFBConnectionTest() override { reset(); }

    /// Ends what there is, so that a test can begin anew.
    void reset() {
        connection_.reset();
        server_.reset();
        host_.settle();
        std::filesystem::remove(path_);
        frames_.clear();
        sizes_.clear();
        ends_.clear();
    }
    void beginConnect(Duration timeout = seconds(15), bool preferTight = false) {
        connection_ = std::make_shared<RFBConnection>(host_.runtime(), path_, preferTight);
        connection_->onFrame = [this](FramePointer frame) {
            frames_.push_back(std::move(frame));
            if (afterFrame_) afterFrame_();
        };
        connection_->onResize = [this](int width, int height) { sizes_.emplace_back(width, height); };
        connection_->onDisconnect = [this](const std::exception_ptr& error) {
            ends_.push_back(error ? errorText(error) : "no error");
        };
        connected_ = {};
        connecting_ =
            spawn(host_.runtime().io, deliver(connection_->connect(timeout), connected_), "connect");
    }
    /// Connects through a whole handshake; returns what the client sent after it.
    Bytes connect(Bytes init = serverInit, bool preferTight = false) {
        reset();
        server_.emplace(host_.runtime(), path_);
        beginConnect(seconds(15), preferTight);
        auto sent = host_.run(server_->shakeHands(std::move(init)));
        host_.run(connected_.wait());
        return sent;
    }
    /// Begins to connect to a server that takes the connection and says nothing yet.
    void beginHandshake() {
        reset();
        server_.emplace(host_.runtime(), path_);
        beginConnect();
        host_.run(server_->accept());
    }
    std::string connectError() {
        try {
            host_.run(connected_.wait());
            return "connected";
        } catch (const RFBConnectionError& error) {
            return error.what();
        }
    }
    void serve(Bytes bytes) { host_.run(server_->write(std::move(bytes))); }
    Bytes expect(std::size_t count) { return host_.run(server_->expect(count)); }
    void waitForEnd() {
        host_.driveUntil([&] { return !ends_.empty(); });
    }
};

TEST_F(RFBConnectionTest, asksForItsFormatItsEncodingsAndTheWholeScreen) {
    for (const bool preferTight : {false, true}) {
        const auto encodings = RFBConnection::encodings(preferTight);
        EXPECT_EQ(encodings[1], preferTight ? RFBEncoding::tight : RFBEncoding::raw);
        EXPECT_EQ(connect(serverInit, preferTight),
                  RFBClientMessage::SetPixelFormat{RFBPixelFormat::bgra32()}.encoded() +
                      RFBClientMessage::SetEncodings{encodings}.encoded() + fullRequest);
        EXPECT_TRUE(log_.contains("VNC connected: demo 40x30 bpp=32"));
    }
}

TEST_F(RFBConnectionTest, asksForTheNextUpdateAtTheHeaderAndGivesOnePictureAnUpdateOfPixels) {
    connect();
    const auto bytes =
        update({rectangle(0, 0, 40, 30, 0, Bytes(4'800, 1)), rectangle(1, 1, 1, 1, 0, Bytes(4, 2))});
    serve(Bytes(bytes.begin(), bytes.begin() + 4));
    EXPECT_EQ(expect(requestBytes), incrementalRequest);
    EXPECT_TRUE(frames_.empty());
    serve(Bytes(bytes.begin() + 4, bytes.end()) + update({rectangle(0, 0, 4, 1, -239, Bytes(17))}) +
          update({}) + update({rectangle(0, 0, 1, 1, 0, Bytes(4, 3))}));
    host_.driveUntil([&] { return frames_.size() == 2; });
    EXPECT_EQ(frames_[0]->width, 40);
    EXPECT_EQ(frames_[0]->pixels[164], 2);
    EXPECT_EQ(frames_[0]->pixels[0], 1);
    EXPECT_EQ(frames_[1]->pixels[0], 3);
}

TEST_F(RFBConnectionTest, readsWhatCameWithTheHandshake) {
    connect(serverInit + update({rectangle(0, 0, 1, 1, 0, Bytes(4, 3))}));
    host_.driveUntil([&] { return frames_.size() == 1; });
}

TEST_F(RFBConnectionTest, tellsANewSizeAndAsksForAllOfIt) {
    connect();
    serve(update({rectangle(0, 0, 40, 30, -223), rectangle(0, 0, 50, 20, -223)}));
    EXPECT_EQ(expect(requestBytes), incrementalRequest);
    EXPECT_EQ(expect(requestBytes), (Bytes{3, 0, 0, 0, 0, 0, 0, 50, 0, 20}));
    EXPECT_EQ(sizes_, (std::vector<std::pair<int, int>>{{50, 20}}));
}

TEST_F(RFBConnectionTest, sendsKeysAsTheServerCanTakeThem) {
    connect();
    const GuestKey mapped{0x61, 0}, unmapped{0x62, 52}, nothing{0, 52}, positionOnly{0, 126};
    for (const auto& key : {mapped, nothing, positionOnly}) connection_->sendKey(key, true);
    connection_->sendPointer(1, 7, 8);
    connection_->sendPointer(1, -5, 70'000);
    EXPECT_EQ(expect(8), (Bytes{4, 1, 0, 0, 0, 0, 0, 0x61}));
    EXPECT_EQ(expect(6), (Bytes{5, 1, 0, 7, 0, 8}));
    EXPECT_EQ(expect(6), (Bytes{5, 1, 0, 0, 0xff, 0xff}));

    serve(update({rectangle(0, 0, 0, 0, -258)}));
    EXPECT_EQ(expect(requestBytes), incrementalRequest);
    for (const auto& key : {mapped, unmapped, nothing, positionOnly}) connection_->sendKey(key, false);
    EXPECT_EQ(expect(12), (Bytes{255, 0, 0, 0, 0, 0, 0, 0x61, 0, 0, 0, 30}));
    EXPECT_EQ(expect(8), (Bytes{4, 0, 0, 0, 0, 0, 0, 0x62}));
    EXPECT_EQ(expect(12), (Bytes{255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 200}));
}

TEST_F(RFBConnectionTest, endsOnceWithTheCause) {
    const std::vector<std::pair<Bytes, std::string>> table{
        {update({rectangle(0, 0, 1, 1, 5)}) + Bytes{9},
         "VNC 流解析失败: The VM display sent an unsupported encoding (5)."},
        {update({rectangle(0, 0, 9, 9, 7, {0, 3, 9, 9, 9})}), "Tight 解码失败: Tight zlib error -3"},
        {update({rectangle(0, 0, 9, 9, 16, be32(0))}), "ZRLE 解码失败: ZRLE tile data ended early"},
    };
    for (const auto& [bytes, line] : table) {
        connect();
        serve(bytes);
        waitForEnd();
        host_.settle();
        const auto cause = line.substr(line.find(": ") + 2);
        EXPECT_EQ(ends_, (std::vector<std::string>{cause}));
        EXPECT_TRUE(log_.contains(line));
        EXPECT_TRUE(log_.contains("VNC 连接结束: " + cause));
        EXPECT_TRUE(frames_.empty());
        connection_->close();
        server_.reset();
        host_.settle();
        EXPECT_EQ(ends_.size(), 1u);
    }
}

TEST_F(RFBConnectionTest, endsWithoutErrorWhenTheServerHangsUp) {
    connect();
    server_->hangUp();
    waitForEnd();
    EXPECT_EQ(ends_, (std::vector<std::string>{"no error"}));
    EXPECT_FALSE(log_.contains("VNC 连接结束"));
}

TEST_F(RFBConnectionTest, endsWithAnErrorWhenTheServerGoesWithoutReading) {
    connect();
    connection_->sendPointer(1, 2, 3);
    host_.settle();
    server_->hangUp();
    waitForEnd();
    EXPECT_EQ(ends_, (std::vector<std::string>{"The VM display connection was closed."}));
    EXPECT_TRUE(log_.contains("VNC 连接结束: The VM display connection was closed."));
}

TEST_F(RFBConnectionTest, closeEndsTheSocketAndTellsOnce) {
    connect();
    connection_->close();
    connection_->close();
    EXPECT_TRUE(host_.run(server_->sawEnd()));
    host_.settle();
    EXPECT_EQ(ends_, (std::vector<std::string>{"no error"}));
}

TEST_F(RFBConnectionTest, destructionEndsTheSocketAndTellsNobody) {
    connect();
    connection_.reset();
    EXPECT_TRUE(host_.run(server_->sawEnd()));
    host_.settle();
    EXPECT_TRUE(ends_.empty());
}

TEST_F(RFBConnectionTest, tellsNothingMoreOfWhatOneReadBroughtOnceItIsDestroyed) {
    connect();
    afterFrame_ = [this] { connection_.reset(); };
    const auto drawing = update({rectangle(0, 0, 1, 1, 0, Bytes(4))});
    serve(drawing + update({rectangle(0, 0, 50, 20, -223)}) + drawing + Bytes{9});
    host_.driveUntil([&] { return !connection_; });
    host_.settle();
    EXPECT_EQ(frames_.size(), 1u);
    EXPECT_TRUE(sizes_.empty());
    EXPECT_TRUE(ends_.empty());
}

TEST_F(RFBConnectionTest, waitsForTheSocketUntilTheTimeout) {
    for (const bool hangs : {false, true}) {
        FileDescriptor listener, waiting;
        if (hangs) {
            listener = listenUnixSocket(path_, 0);
            waiting = connectUnixSocket(path_);  // takes the only place
        }
        const auto start = host_.clock().now();
        beginConnect(seconds(1));
        while (!connected_.isDecided()) {
            host_.settle();
            host_.clock().advance(milliseconds(50));
        }
        EXPECT_EQ(connectError(), "Could not connect to the VM display at " + path_ + ".");
        const auto waited = host_.clock().now() - start;
        EXPECT_GE(waited, seconds(1));
        EXPECT_LE(waited, seconds(1.2));
    }
}

TEST_F(RFBConnectionTest, findsASocketThatAppearsLater) {
    beginConnect();
    host_.settle();
    server_.emplace(host_.runtime(), path_);
    host_.clock().advance(milliseconds(200));
    host_.run(server_->shakeHands(serverInit));
    host_.run(connected_.wait());
}

TEST_F(RFBConnectionTest, refusesAPathThatCannotBeASocket) {
    path_ = "/" + std::string(103, 'x');
    beginConnect();
    EXPECT_EQ(connectError(), "The VM display socket path is too long (104 bytes, limit 104): " + path_);
    path_ = directory_ / "missing";
    beginConnect(seconds(0));
    EXPECT_EQ(connectError(), "Could not connect to the VM display at " + path_ + ".");
}

TEST_F(RFBConnectionTest, failsAtASilentServerAfterFiveSeconds) {
    beginHandshake();
    host_.run(server_->write(toBytes("RFB 003.008\n")));
    host_.run(server_->expect(12));
    host_.settle();
    host_.clock().advance(seconds(4.9));
    host_.settle();
    EXPECT_FALSE(connected_.isDecided());
    host_.clock().advance(seconds(0.2));
    EXPECT_EQ(connectError(), "The VM display connection could not be established. Read failed (errno 11).");
    EXPECT_TRUE(host_.run(server_->sawEnd()));
    EXPECT_TRUE(ends_.empty());
}

TEST_F(RFBConnectionTest, closeOrDestructionDuringTheHandshakeFailsTheConnect) {
    for (const bool closes : {true, false}) {
        beginHandshake();
        if (closes)
            connection_->close();
        else
            connection_.reset();
        EXPECT_EQ(connectError(), "The VM display connection was closed.");
        EXPECT_TRUE(host_.run(server_->sawEnd()));
        EXPECT_TRUE(ends_.empty());
    }
}

TEST_F(RFBConnectionTest, keepsMessagesForAServerThatReadsLate) {
    connect();
    // More than the socket's buffers hold at this many messages, so the tail waits for room.
    constexpr int count = 100'000;
    for (int i = 0; i < count; ++i) connection_->sendPointer(0, i & 0xFFFF, 0);
    host_.settle();
    constexpr std::size_t messageBytes = 6;
    const auto messages = expect(count * messageBytes);
    for (std::size_t i = 0; i < count; ++i)
        ASSERT_EQ(loadBE16(messages.data() + i * messageBytes + 2), i & 0xFFFF);
}

TEST_F(RFBConnectionTest, dropsOnlyPointerEventsForAServerThatReadsNothing) {
    connect();
    constexpr int count = 250'000;
    for (int i = 0; i < count; ++i) connection_->sendPointer(0, 0, 0);
    host_.settle();
    serve(update({rectangle(0, 0, 1, 1, 0, Bytes(4))}));
    host_.driveUntil([&] { return frames_.size() == 1; });
    connection_->sendKey({0x61, 0}, false);
    EXPECT_LT(host_.run(server_->passOverPointerEvents()), count);
    EXPECT_EQ(expect(requestBytes), incrementalRequest);
    EXPECT_EQ(expect(8), (Bytes{4, 0, 0, 0, 0, 0, 0, 0x61}));
}

TEST_F(RFBConnectionTest, givesUpAServerThatNeverReads) {
    connect();
    Bytes many;
    for (int i = 0; i < 1'000; ++i) many = many + update({});
    for (int i = 0; i < 400 && ends_.empty(); ++i) {
        serve(many);
        host_.settle();
    }
    EXPECT_EQ(ends_, std::vector<std::string>{"The VM display connection could not be established. The VM "
                                              "display does not read what it is sent."});
}

}  // namespace
}  // namespace dorvane::test

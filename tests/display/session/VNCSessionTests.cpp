// SPDX-License-Identifier: Apache-2.0
#include "display/session/VNCSession.h"

#include <gtest/gtest.h>

#include "support/FakeDisplayTransport.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

constexpr GuestKey shift{0xFFE1, 56}, letterA{0x61, 0}, command{0xFFEB, 55};

/// In a build without the agent protocol, where the display is all there is.
class VNCSessionTest : public testing::Test {
  protected:
    void connect() {
        session_->connect({VNCChannel{"/v.sock"}, "/agent.sock", {true, true, UUID::random()}});
        host_.settle();
    }
    void beginStreaming() {
        transports_.latest().connected.succeed();
        transports_.latest().onFrame(FakeDisplayTransport::makeFrame(4, 2));
        host_.settle();
    }
    void loseConnection() {
        transports_.latest().onDisconnect(nullptr);
        host_.settle();
    }
    void failConnect() {
        transports_.latest().connected.fail(std::runtime_error("refused"));
        host_.settle();
    }
    void pass(Duration time) {
        host_.clock().advance(time);
        host_.settle();
    }

    TestRuntime host_{TestRuntime::TimeMode::manual};
    LogCapture log_;
    FakeDisplayTransportMaker transports_;
    std::shared_ptr<VNCSession> session_ =
        std::make_shared<VNCSession>(host_.runtime(), transports_, nullptr, nullptr);
};

TEST_F(VNCSessionTest, firstFrameConnects) {
    int frames = 0;
    session_->frameChanged.connect([&] { ++frames; });
    connect();
    EXPECT_EQ(transports_.channels.at(0), GuestDisplayChannel(VNCChannel{"/v.sock"}));
    EXPECT_EQ(transports_.latest().connectTimeout, seconds(15));
    transports_.latest().connected.succeed();
    host_.settle();
    EXPECT_FALSE(session_->isConnected());
    beginStreaming();
    EXPECT_TRUE(session_->isConnected());
    EXPECT_EQ(session_->frame()->width, 4);
    EXPECT_EQ(session_->guestSize(), (VNCSession::Size{4, 2}));
    EXPECT_EQ(frames, 1);
    EXPECT_FALSE(session_->canAcceptFileDrops());
    session_->pasteFiles({"/a"});
    session_->disconnect();
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(VNCSessionTest, secondConnectIsIgnoredWhileTheFirstRuns) {
    connect();
    connect();
    EXPECT_EQ(transports_.made.size(), 1U);
    transports_.latest().connected.succeed();
    host_.settle();
    connect();
    EXPECT_EQ(transports_.made.size(), 2U);
}

TEST_F(VNCSessionTest, onlyTheNewestOfManyFramesIsShown) {
    int frames = 0;
    session_->frameChanged.connect([&] { ++frames; });
    connect();
    for (const int width : {1, 2, 3}) transports_.latest().onFrame(FakeDisplayTransport::makeFrame(width, 1));
    host_.settle();
    EXPECT_EQ(frames, 1);
    EXPECT_EQ(session_->frame()->width, 3);
    transports_.latest().onFrame(FakeDisplayTransport::makeFrame(5, 1));
    host_.settle();
    EXPECT_EQ(session_->frame()->width, 5);
}

TEST_F(VNCSessionTest, failedFirstConnectIsToldAndNotRetried) {
    connect();
    failConnect();
    EXPECT_EQ(session_->failureReason(), "refused");
    EXPECT_TRUE(log_.contains("画面连接失败: refused"));
    pass(seconds(60));
    EXPECT_EQ(transports_.made.size(), 1U);
    transports_.failure = std::make_exception_ptr(std::runtime_error("no such display here"));
    connect();
    EXPECT_EQ(session_->failureReason(), "no such display here");
    session_->sendKey(letterA, true);
    EXPECT_EQ(transports_.latest().events, (std::vector<std::string>{"close"})) << "the old guest's";
}

TEST_F(VNCSessionTest, lostConnectionIsRetriedAfterOneTwoAndFourSecondsAnewAfterEachFrame) {
    connect();
    beginStreaming();
    for (int round = 0; round < 5; ++round) {
        loseConnection();
        pass(seconds(1));  // always the first delay
        beginStreaming();
    }
    EXPECT_TRUE(session_->isConnected());
    std::size_t made = 6;
    EXPECT_EQ(transports_.made.size(), made);
    loseConnection();
    EXPECT_FALSE(session_->isConnected());
    EXPECT_EQ(session_->failureReason(), "The connection to the VM display was closed.");
    EXPECT_TRUE(log_.contains("画面连接中断: The connection to the VM display was closed."));
    for (const auto delay : {seconds(1), seconds(2), seconds(4)}) {
        pass(delay - milliseconds(1));
        EXPECT_EQ(transports_.made.size(), made);
        pass(milliseconds(1));
        EXPECT_EQ(transports_.made.size(), ++made);
        EXPECT_TRUE(transports_.made[made - 2]->isClosed);
        EXPECT_EQ(session_->failureReason(), std::nullopt);
        failConnect();
    }
    pass(seconds(60));
    EXPECT_EQ(transports_.made.size(), made);
    EXPECT_EQ(session_->failureReason(), "refused");
}

TEST_F(VNCSessionTest, disconnectDuringTheWaitEndsTheRetries) {
    connect();
    beginStreaming();
    loseConnection();
    session_->disconnect();
    pass(seconds(60));
    EXPECT_EQ(transports_.made.size(), 1U);
}

TEST_F(VNCSessionTest, whatAnOldTransportStillSaysIsNotHeard) {
    connect();
    beginStreaming();
    const auto old = transports_.made.front();
    old->onFrame(FakeDisplayTransport::makeFrame(9, 9));
    session_->disconnect();
    connect();
    old->onFrame(FakeDisplayTransport::makeFrame(9, 9));
    old->onResize(9, 9);
    old->onCursor(GuestCursor{});
    old->onDisconnect(std::make_exception_ptr(std::runtime_error("late")));
    host_.settle();
    EXPECT_EQ(session_->frame(), nullptr);
    EXPECT_EQ(session_->guestSize(), (VNCSession::Size{4, 2}));
    EXPECT_FALSE(session_->guestCursor());
    EXPECT_FALSE(session_->failureReason());
    transports_.latest().onResize(8, 6);
    transports_.latest().onCursor(GuestCursor{nullptr, 1, 2});
    host_.settle();
    EXPECT_EQ(session_->guestSize(), (VNCSession::Size{8, 6}));
    EXPECT_EQ(session_->guestCursor()->hotSpotY, 2);
}

TEST_F(VNCSessionTest, noKeyStaysDownInTheGuest) {
    connect();
    auto& guest = transports_.latest();
    session_->sendKeyCombination({command, letterA});
    EXPECT_EQ(guest.events,
              (std::vector<std::string>{"key ffeb down", "key 61 down", "key 61 up", "key ffeb up"}));
    guest.events.clear();
    session_->sendKey(shift, true);
    session_->sendKey(letterA, true);
    session_->sendKey(letterA, false);
    session_->releaseHeldKeys();
    session_->releaseHeldKeys();
    EXPECT_EQ(guest.events,
              (std::vector<std::string>{"key ffe1 down", "key 61 down", "key 61 up", "key ffe1 up"}));
    guest.events.clear();
    session_->sendKey(shift, true);
    session_->disconnect();
    EXPECT_EQ(guest.events, (std::vector<std::string>{"key ffe1 down", "key ffe1 up", "close"}));
    session_->sendKey(shift, true);
    EXPECT_EQ(guest.events.size(), 3U);
}

TEST_F(VNCSessionTest, viewMayDropOrRestartItFromInsideASignal) {
    connect();
    beginStreaming();
    const auto first = transports_.made.front();
    session_->changed.connect([this] { session_.reset(); });
    loseConnection();
    EXPECT_EQ(session_, nullptr);
    EXPECT_TRUE(first->isClosed);
    pass(seconds(60));
    EXPECT_EQ(transports_.made.size(), 1U);

    session_ = std::make_shared<VNCSession>(host_.runtime(), transports_, nullptr, nullptr);
    connect();
    beginStreaming();
    loseConnection();
    bool restarted = false;
    session_->changed.connect([&] {
        if (!std::exchange(restarted, true)) session_->connect({VNCChannel{"/other.sock"}, std::nullopt, {}});
    });
    pass(seconds(1));  // the retry's own disconnect tells of a change
    EXPECT_EQ(transports_.channels.back(), GuestDisplayChannel(VNCChannel{"/other.sock"}));
    beginStreaming();
    EXPECT_TRUE(session_->isConnected());
}

}  // namespace
}  // namespace dorvane::test

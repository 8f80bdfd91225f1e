// SPDX-License-Identifier: Apache-2.0
// A display session on a real guest: what is typed arrives, and what the guest draws is seen.
#include "display/session/VNCSession.h"

#include <gmock/gmock.h>
#include <png.h>
#include <sys/socket.h>

#include "core/application/DisplayTransportFactory.h"
#include "display/session/HostFramebufferCapture.h"
#include "display/session/PNGEncoder.h"
#include "display/session/VNCKeyMap.h"
#include "runtime/Sockets.h"
#include "session/DemoGuest.h"
#include "support/FakeDefaultsStore.h"

namespace dorvane::test {
namespace {

constexpr auto bootLimit = seconds(180);
constexpr auto answerLimit = seconds(20);
constexpr auto pollInterval = milliseconds(20);
constexpr auto captureLimit = seconds(5);

/// The host's virtual key codes of the characters that the tests type.
const std::map<char, std::uint16_t> keyCodes = {{'a', 0},  {'s', 1},  {'h', 4},  {'e', 14}, {'y', 16},
                                                {'o', 31}, {'l', 37}, {' ', 49}, {'-', 27}, {'\n', 36}};

class RealVNCSession : public testing::Test {
  protected:
    static void SetUpTestSuite() { guest_ = std::make_unique<DemoGuest>(); }
    static void TearDownTestSuite() { guest_.reset(); }

    /// Runs the main thread's work until the condition holds; false after the limit.
    bool waitFor(Duration limit, std::function<bool()> condition) {
        return time_.run(pollUntil(time_.runtime().clock, limit, pollInterval, std::move(condition)));
    }
    void type(std::string_view text) {
        for (const char c : text) {
            const auto keyCode = keyCodes.at(static_cast<char>(std::tolower(c)));
            const GuestKey key{VNCKeyMap::keysym(keyCode, std::string_view(&c, 1)).value(), keyCode};
            session_->sendKey(key, true);
            session_->sendKey(key, false);
        }
    }
    /// An end of the stream, or a reset where the emulator closed its socket with something of ours unread.
    void expectClosedByTheGuest() {
        EXPECT_THAT(session_->failureReason(),
                    testing::Optional(testing::AnyOf("The connection to the VM display was closed.",
                                                     "The VM display connection was closed.")));
    }
    void openDisplay() {
        ASSERT_TRUE(waitFor(bootLimit, [] { return guest_->hasSaid("DORVANE DEMO READY"); }))
            << guest_->serialLog();
        session_->connect({VNCChannel{guest_->displaySocket()}, std::nullopt, {}});
        ASSERT_TRUE(waitFor(answerLimit, [this] { return session_->isConnected(); }));
    }

    static std::unique_ptr<DemoGuest> guest_;
    RealTime time_;
    FakeDefaultsStore defaults_;
    DisplayTransportFactory transports_{time_.runtime(), defaults_};
    std::shared_ptr<VNCSession> session_ =
        std::make_shared<VNCSession>(time_.runtime(), transports_, nullptr, nullptr);
};

std::unique_ptr<DemoGuest> RealVNCSession::guest_;

TEST_F(RealVNCSession, whatIsTypedArrivesAndIsDrawn) {
    openDisplay();
    const auto before = session_->frame();
    EXPECT_EQ(session_->guestSize(), (VNCSession::Size{before->width, before->height}));
    type("say hello\n");
    EXPECT_TRUE(waitFor(answerLimit, [] { return guest_->hasSaid("SAID: hello"); })) << guest_->serialLog();
    EXPECT_TRUE(waitFor(answerLimit, [&] { return session_->frame()->pixels != before->pixels; }));
    // The picture of the documents is made here: DORVANE_TYPED_SCREENSHOT names the file.
    if (const char* file = std::getenv("DORVANE_TYPED_SCREENSHOT")) {
        waitFor(seconds(2), [] { return false; });
        writeFileAtomically(file, encodePNG(*session_->frame()));
    }
    // A held key counts until the keys are released.
    constexpr GuestKey shift{0xFFE1, 56};
    type("say ");
    session_->sendKey(shift, true);
    type("HEY");
    session_->releaseHeldKeys();
    type(" oh\n");
    EXPECT_TRUE(waitFor(answerLimit, [] { return guest_->hasSaid("SAID: HEY oh"); })) << guest_->serialLog();
}

TEST_F(RealVNCSession, pictureOfAnIdleGuestComesAtOnceBesideAnOpenDisplay) {
    openDisplay();
    HostFramebufferCapture capture(time_.runtime(), transports_);
    for (int round = 0; round < 3; ++round) {
        const auto png = time_.run(
            capture.capturePNG(GuestDisplayChannel(VNCChannel{guest_->displaySocket()}), captureLimit));
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        ASSERT_NE(png_image_begin_read_from_memory(&image, png.data(), png.size()), 0);
        EXPECT_EQ(static_cast<int>(image.width), session_->guestSize().width);
        EXPECT_EQ(static_cast<int>(image.height), session_->guestSize().height);
        png_image_free(&image);
    }
    EXPECT_TRUE(session_->isConnected());
}

/// A client that asks for the screen alone: the server throws out all others, and this one leaves at once.
void throwOutEverybody(const std::string& socketPath) {
    const auto socket = connectUnixSocket(socketPath);
    const auto read = [&](std::size_t count) {
        char bytes[16];
        ASSERT_EQ(::recv(socket.get(), bytes, count, MSG_WAITALL), static_cast<ssize_t>(count));
    };
    const auto write = [&](std::string_view bytes) {
        ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    };
    using namespace std::string_view_literals;
    read(12);
    write("RFB 003.008\n");
    read(2);  // one security type
    write("\x01");
    read(4);
    write("\0"sv);  // not shared
    read(1);
}

// Last, since it ends the guest.
TEST_F(RealVNCSession, lostConnectionComesBackByItselfAndTheEndOfTheGuestIsTold) {
    openDisplay();
    throwOutEverybody(guest_->displaySocket());
    ASSERT_TRUE(waitFor(answerLimit, [this] { return !session_->isConnected(); }));
    expectClosedByTheGuest();
    ASSERT_TRUE(waitFor(answerLimit, [this] { return session_->isConnected(); }));
    EXPECT_FALSE(session_->failureReason());
    type("say hello yes\n");
    EXPECT_TRUE(waitFor(answerLimit, [] { return guest_->hasSaid("SAID: hello yes"); }))
        << guest_->serialLog();

    guest_->kill();
    ASSERT_TRUE(waitFor(answerLimit, [this] { return !session_->isConnected(); }));
    expectClosedByTheGuest();
    // The first retry waits for the socket; a disconnect must end it at once.
    ASSERT_TRUE(waitFor(answerLimit, [this] { return !session_->failureReason().has_value(); }));
    session_->disconnect();
    EXPECT_FALSE(session_->isConnected());
    EXPECT_FALSE(waitFor(seconds(2), [this] { return session_->failureReason().has_value(); }));
}

}  // namespace
}  // namespace dorvane::test

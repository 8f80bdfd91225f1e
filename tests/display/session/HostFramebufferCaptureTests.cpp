// SPDX-License-Identifier: Apache-2.0
#include "display/session/HostFramebufferCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>

#include "core/DorvaneError.h"
#include "display/rfb/RFBConnectionError.h"
#include "display/session/PNGEncoder.h"
#include "support/FakeDisplayTransport.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

struct DecodedPNG {
    std::uint32_t width = 0, height = 0;
    Bytes rgb;
};

DecodedPNG decode(const Bytes& png) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    DecodedPNG result;
    if (png_image_begin_read_from_memory(&image, png.data(), png.size()) == 0) return result;
    EXPECT_EQ(image.format, PNG_FORMAT_RGB) << "eight bits of red, green and blue, without alpha";
    image.format = PNG_FORMAT_RGB;
    result.rgb.resize(PNG_IMAGE_SIZE(image));
    if (png_image_finish_read(&image, nullptr, result.rgb.data(), 0, nullptr) == 0) return {};
    result.width = image.width;
    result.height = image.height;
    return result;
}

TEST(PNGEncoder, keepsEveryPixelAndDropsTheFourthByte) {
    FrameImage image{3, 2, {}};
    Bytes expected;
    for (std::uint8_t i = 0; i < 6; ++i) {
        const std::uint8_t blue = i, green = static_cast<std::uint8_t>(40 * i),
                           red = static_cast<std::uint8_t>(255 - i);
        image.pixels.insert(image.pixels.end(), {blue, green, red, 0x7F});
        expected.insert(expected.end(), {red, green, blue});
    }
    const auto png = decode(encodePNG(image));
    EXPECT_EQ(png.width, 3U);
    EXPECT_EQ(png.height, 2U);
    EXPECT_EQ(png.rgb, expected);
}

TEST(PNGEncoder, refusesPicturesThatAreNone) {
    EXPECT_TRUE(encodePNG({0, 2, Bytes(8)}).empty());
    EXPECT_TRUE(encodePNG({2, -1, Bytes(8)}).empty());
    EXPECT_TRUE(encodePNG({2, 2, Bytes(15)}).empty());
    EXPECT_TRUE(encodePNG({2'000'000, 1, Bytes(8'000'000)}).empty()) << "wider than the library takes";
}

class HostFramebufferCaptureTest : public testing::Test {
  protected:
    TaskHandle begin() {
        outcome_ = {};
        GuestDisplaySource::Kind source = GuestDisplaySource::VNC{"/v", std::nullopt};
        auto handle = spawn(host_.runtime().main.executor(),
                            deliver(capture_.capturePNG(source, seconds(3)), outcome_), "capture");
        host_.settle();
        return handle;
    }
    /// Captures while `script` plays the guest.
    Bytes capture(const std::function<void(FakeDisplayTransport&)>& script) {
        const auto handle = begin();
        script(transports_.latest());
        host_.settle();
        EXPECT_TRUE(outcome_.isDecided());
        EXPECT_TRUE(transports_.latest().isClosed);
        return outcome_.take();
    }
    void passTime() {
        host_.clock().advance(seconds(3));
        host_.settle();
    }

    TestRuntime host_{TestRuntime::TimeMode::manual};
    FakeDisplayTransportMaker transports_;
    HostFramebufferCapture capture_{host_.runtime(), transports_};
    OneShot<Bytes> outcome_;
};

TEST_F(HostFramebufferCaptureTest, firstFrameDecidesAndLaterEventsChangeNothing) {
    const auto png = capture([](FakeDisplayTransport& guest) {
        guest.onFrame(FakeDisplayTransport::makeFrame(2, 1, 0x10));
        guest.onFrame(FakeDisplayTransport::makeFrame(5, 5, 0x20));
        guest.onDisconnect(nullptr);
    });
    EXPECT_EQ(decode(png).rgb, Bytes(6, 0x10));
}

TEST_F(HostFramebufferCaptureTest, errorsOfTheTransportComeThroughUnchanged) {
    EXPECT_THROW(capture([](FakeDisplayTransport& guest) { guest.connected.fail(std::logic_error("no")); }),
                 std::logic_error);
    EXPECT_THROW(capture([](FakeDisplayTransport& guest) {
                     guest.onDisconnect(std::make_exception_ptr(std::domain_error("broken")));
                 }),
                 std::domain_error);
    EXPECT_THAT([this] { capture([](FakeDisplayTransport& guest) { guest.onDisconnect(nullptr); }); },
                testing::ThrowsMessage<RFBConnectionError>("The VM display connection was closed."));
}

TEST_F(HostFramebufferCaptureTest, timeIsTheReasonWhateverElseFailsAtTheDeadline) {
    const std::function<void(FakeDisplayTransport&)> scripts[] = {
        [this](FakeDisplayTransport&) { passTime(); },  // still connecting
        [this](FakeDisplayTransport& guest) {           // connected, but no frame
            guest.connected.succeed();
            passTime();
        },
        [this](FakeDisplayTransport& guest) {  // both time-outs at once
            host_.clock().advance(seconds(3));
            guest.connected.fail(std::runtime_error("socket unavailable"));
        },
    };
    for (const auto& script : scripts)
        EXPECT_THAT([&] { capture(script); }, testing::ThrowsMessage<HostFramebufferCapture::CaptureError>(
                                                  "The VM display did not produce a frame in time."));
}

TEST_F(HostFramebufferCaptureTest, frameWithoutPixelsCanNotBeEncoded) {
    const auto captureNothing = [this] {
        capture([](FakeDisplayTransport& guest) { guest.onFrame(FakeDisplayTransport::makeFrame(0, 0)); });
    };
    EXPECT_THAT(captureNothing, testing::ThrowsMessage<HostFramebufferCapture::CaptureError>(
                                    "The captured frame could not be encoded as PNG."));
}

TEST_F(HostFramebufferCaptureTest, cancelledCaptureClosesItsTransport) {
    auto handle = begin();
    handle = TaskHandle();
    host_.settle();
    EXPECT_TRUE(transports_.latest().isClosed);
    EXPECT_EQ(host_.clock().pendingTimers(), 0U);
}

TEST_F(HostFramebufferCaptureTest, screenInsideThisProcessIsRefused) {
    GuestDisplaySource::Kind source = GuestDisplaySource::Virtualization{};
    EXPECT_THROW(host_.run(capture_.capturePNG(source, seconds(3))), DorvaneError);
    EXPECT_TRUE(transports_.made.empty());
}

}  // namespace
}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// A guest's screen whose events the test makes.
#pragma once

#include <fmt/format.h>

#include <vector>

#include "display/GuestDisplayTransport.h"
#include "runtime/Event.h"

namespace dorvane::test {

/// Writes down what it is told: "key ffe3 down", "pointer 1 10,20", "close".
class FakeDisplayTransport : public GuestDisplayTransport {
  public:
    Task<void> connect(Duration timeout) override {
        connectTimeout = timeout;
        const auto outcome = connected;
        co_await outcome.wait();
    }
    void sendPointer(std::uint8_t buttonMask, int x, int y) override {
        events.push_back(fmt::format("pointer {} {},{}", buttonMask, x, y));
    }
    void sendKey(const GuestKey& key, bool down) override {
        events.push_back(fmt::format("key {:x} {}", key.keysym, down ? "down" : "up"));
    }
    void close() override {
        isClosed = true;
        events.emplace_back("close");
        if (onDisconnect) onDisconnect(nullptr);
    }

    /// A picture in one colour; the first three bytes of each pixel are `shade`.
    static FramePointer makeFrame(int width, int height, std::uint8_t shade = 0) {
        auto frame = std::make_shared<FrameImage>();
        frame->width = width;
        frame->height = height;
        frame->pixels.assign(static_cast<std::size_t>(width * height * 4), shade);
        return frame;
    }

    /// Decides how `connect` ends; until then it waits.
    OneShot<void> connected;
    std::optional<Duration> connectTimeout;
    std::vector<std::string> events;
    bool isClosed = false;
};

class FakeDisplayTransportMaker : public GuestDisplayTransportMaking {
  public:
    std::shared_ptr<GuestDisplayTransport> makeTransport(const GuestDisplayChannel& channel) override {
        if (failure) std::rethrow_exception(failure);
        channels.push_back(channel);
        made.push_back(std::make_shared<FakeDisplayTransport>());
        return made.back();
    }
    FakeDisplayTransport& latest() { return *made.back(); }

    std::exception_ptr failure;
    std::vector<GuestDisplayChannel> channels;
    std::vector<std::shared_ptr<FakeDisplayTransport>> made;
};

}  // namespace dorvane::test

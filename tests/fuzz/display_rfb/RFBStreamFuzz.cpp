// SPDX-License-Identifier: Apache-2.0
// A server's stream of any bytes, arriving at once and in pieces: both must draw the same and tell the same.
#include <algorithm>
#include <cstdlib>

#include "display/rfb/RFBStream.h"

namespace {

using namespace dorvane;

constexpr int width = 320, height = 200;

/// Enough of what was told to notice a difference.
class Recorder : public RFBStreamHandler {
  public:
    std::string events;

    void updateBegan(int rectangleCount) override { note('b', rectangleCount); }
    void updateFinished(bool didTouchPixels) override { note('f', didTouchPixels); }
    void desktopResized(int newWidth, int newHeight) override {
        note('w', newWidth);
        note('h', newHeight);
        // A large screen only makes the fuzzer slow.
        if (newWidth * newHeight > width * height * 16) throw std::runtime_error("large enough");
    }
    void extendedKeyEventsSupported() override { note('k', 0); }
    void cursorReceived() override { note('c', 0); }

  private:
    void note(char kind, int value) { events += kind + std::to_string(value); }
};

struct Outcome {
    std::string events, error;
    Bytes pixels;
    bool operator==(const Outcome&) const = default;
};

Outcome play(ByteView bytes, std::size_t pieceBytes) {
    RFBFramebuffer framebuffer;
    framebuffer.resize(width, height);
    Recorder recorder;
    RFBStream stream(framebuffer, recorder);
    Outcome outcome;
    try {
        while (!bytes.empty()) {
            const auto count = std::min(pieceBytes, bytes.size());
            stream.feed(bytes.first(count));
            bytes = bytes.subspan(count);
        }
        outcome.pixels.assign(framebuffer.pixels().begin(), framebuffer.pixels().end());
    } catch (const std::exception& error) {
        outcome.error = error.what();
    }
    outcome.events = recorder.events;
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const ByteView bytes(data + 1, size - 1);
    if (play(bytes, bytes.size()) != play(bytes, 1 + data[0] % 97u)) std::abort();
    return 0;
}

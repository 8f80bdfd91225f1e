// SPDX-License-Identifier: Apache-2.0
#include "rfb/LibVNCPlayer.h"

#include <rfb/rfbclient.h>

#include <memory>

#include "rfb/ThreadTime.h"

namespace dorvane::bench {
namespace {

constexpr int bitsPerSample = 8, samplesPerPixel = 3, bytesPerPixel = 4;

void beSilent(const char*, ...) {}

struct CleanUp {
    void operator()(rfbClient* client) const {
        client->sock = RFB_INVALID_SOCKET;
        client->frameBuffer = nullptr;
        rfbClientCleanup(client);
    }
};

}  // namespace

double playWithLibVNC(const Recording& recording, int fd, std::size_t messageCount, Bytes& screen,
                      const std::function<void()>& afterEach) {
    rfbClientLog = beSilent;
    const std::unique_ptr<rfbClient, CleanUp> client(
        rfbGetClient(bitsPerSample, samplesPerPixel, bytesPerPixel));
    client->width = recording.width;
    client->height = recording.height;
    client->si.framebufferWidth = static_cast<std::uint16_t>(recording.width);
    client->si.framebufferHeight = static_cast<std::uint16_t>(recording.height);
    client->frameBuffer = screen.data();
    client->format.redShift = 16;
    client->format.greenShift = 8;
    client->format.blueShift = 0;
    // No message of the client is marked as supported, so the library sends no update requests.
    client->sock = fd;
    const auto start = threadSeconds();
    for (std::size_t i = 0; i < messageCount; ++i) {
        if (!HandleRFBServerMessage(client.get())) throw std::runtime_error("libvncclient gave up");
        if (afterEach) afterEach();
    }
    return threadSeconds() - start;
}

}  // namespace dorvane::bench

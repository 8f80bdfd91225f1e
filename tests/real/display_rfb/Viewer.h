// SPDX-License-Identifier: Apache-2.0
// A blocking client that draws what a real server sends, counts its rectangles by encoding and keeps it all
// for another decoder.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <chrono>
#include <map>

#include "display/rfb/RFBClientMessage.h"
#include "display/rfb/RFBHandshake.h"
#include "display/rfb/RFBStream.h"
#include "runtime/Sockets.h"

namespace dorvane::test {

using namespace std::chrono_literals;
using Time = std::chrono::steady_clock;

/// Reads only when asked to, on the calling thread. Asks for the whole screen at once and for the next update
/// at each header, as the product does.
class Viewer : private RFBStreamHandler {
  public:
    Viewer(const std::string& socket, const std::vector<RFBEncoding>& encodings)
        : socket_(connectUnixSocket(socket)) {
        shakeHands(encodings);
        request(false);
    }

    /// Takes what has come or comes within `patience`; says whether there was anything. Throws when the
    /// server has hung up or says what it shouldn't.
    bool receive(std::chrono::milliseconds patience) {
        pollfd readable{socket_.get(), POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(patience.count())) <= 0) return false;
        const auto spans = stream_.prepare();
        const auto count = ::readv(socket_.get(), spans.data(), static_cast<int>(spans.size()));
        if (count <= 0) throw std::runtime_error("the server has hung up");
        takeCensus(spans, std::size_t(count));
        stream_.commit(std::size_t(count));
        return true;
    }
    /// Receives until `condition` holds; says whether it did within `limit`.
    template <typename Condition>
    bool receiveUntil(Condition condition, std::chrono::milliseconds limit = 20s) {
        const auto end = Time::now() + limit;
        while (!condition()) {
            if (Time::now() >= end) return false;
            receive(20ms);
        }
        return true;
    }
    /// Receives until every pixel has been sent at least once and then nothing for a while.
    void settle() {
        if (!receiveUntil([&] { return drawnPixels_ >= screen_.pixels().size() / 4; }))
            throw std::runtime_error("the server doesn't send the whole screen");
        for (const auto end = Time::now() + 10s; Time::now() < end && receive(200ms);) {
        }
    }

    const RFBFramebuffer& screen() const { return screen_; }
    /// All that has come since the handshake, and where each of its messages ends.
    ByteView received() const { return received_; }
    const std::vector<std::size_t>& messageEnds() const { return messageEnds_; }
    /// How many rectangles have come in this encoding.
    std::size_t count(RFBEncoding encoding) const {
        const auto found = rectangles_.find(rawValue(encoding));
        return found == rectangles_.end() ? 0 : found->second;
    }

  private:
    void shakeHands(const std::vector<RFBEncoding>& encodings) {
        RFBHandshake handshake(encodings);
        Bytes waiting;
        while (!handshake.isFinished()) {
            Bytes chunk(4'096), answer;
            const auto count = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
            if (count <= 0) throw std::runtime_error("the server has hung up");
            waiting.insert(waiting.end(), chunk.begin(), chunk.begin() + count);
            waiting.erase(waiting.begin(),
                          waiting.begin() + std::ptrdiff_t(handshake.consume(waiting, answer)));
            send(answer);
        }
        screen_.resize(handshake.serverInit().width, handshake.serverInit().height);
    }
    void request(bool incremental) {
        send(RFBClientMessage::FramebufferUpdateRequest{incremental, 0, 0, screen_.width(), screen_.height()}
                 .encoded());
    }
    void send(const Bytes& bytes) const {
        if (::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size()))
            throw std::runtime_error("the server takes nothing");
    }

    void takeCensus(std::span<const iovec> spans, std::size_t count) {
        for (const auto& span : spans) {
            const auto* bytes = static_cast<const std::uint8_t*>(span.iov_base);
            const auto part = std::min(span.iov_len, count);
            received_.insert(received_.end(), bytes, bytes + part);
            count -= part;
        }
        RFBByteReader reader(received());
        reader.setPosition(counted_);
        while (pendingRectangles_ > 0 ? countRectangle(reader) : countMessage(reader)) {
            counted_ = reader.position();
            if (pendingRectangles_ == 0) messageEnds_.push_back(counted_);
        }
    }
    bool countMessage(RFBByteReader& reader) {
        const auto type = reader.readUInt8();
        if (!type) return false;
        const bool isBell = RFBServerMessageType(*type) == RFBServerMessageType::bell;
        if (!isBell && RFBServerMessageType(*type) != RFBServerMessageType::framebufferUpdate)
            throw std::runtime_error("no message of this kind is expected here");
        const auto count = isBell ? 0 : reader.skip(1) ? reader.readUInt16() : std::nullopt;
        if (!count) return false;
        pendingRectangles_ = *count;
        return true;
    }
    bool countRectangle(RFBByteReader& reader) {
        const auto start = reader.position();
        const auto header = RFBRectangle::readHeader(reader);
        reader.setPosition(start);
        if (!header || !RFBRectangle::parse(reader, RFBPixelFormat::bgra32())) return false;
        ++rectangles_[header->encoding];
        if (header->encoding >= 0) drawnPixels_ += header->pixelCount();
        --pendingRectangles_;
        return true;
    }

    void updateBegan(int) override { request(true); }
    void updateFinished(bool) override {}
    void desktopResized(int, int) override { request(false); }
    void extendedKeyEventsSupported() override {}
    void cursorReceived() override {}

    FileDescriptor socket_;
    RFBFramebuffer screen_;
    RFBStream stream_{screen_, *this};
    Bytes received_;
    std::size_t counted_ = 0;
    std::vector<std::size_t> messageEnds_;
    int pendingRectangles_ = 0;
    std::size_t drawnPixels_ = 0;
    std::map<std::int32_t, std::size_t> rectangles_;
};

/// How many pixels differ in blue, green or red; servers leave the fourth byte as they like.
inline std::size_t differences(ByteView one, ByteView other) {
    if (one.size() != other.size()) return SIZE_MAX;
    std::size_t count = 0;
    for (std::size_t i = 0; i < one.size(); i += 4)
        count += (loadPixel(&one[i]) ^ loadPixel(&other[i])) << 8 != 0;
    return count;
}

/// The smallest rectangle around all differences, for a message.
inline std::string differingArea(const RFBFramebuffer& screen, ByteView other) {
    int left = screen.width(), top = screen.height(), right = -1, bottom = -1;
    for (int y = 0; y < screen.height(); ++y)
        for (int x = 0; x < screen.width(); ++x) {
            const auto at = std::size_t(y) * screen.stride() + std::size_t(x) * 4;
            if (loadBGR(&screen.pixels()[at]) == loadBGR(&other[at])) continue;
            left = std::min(left, x), right = std::max(right, x);
            top = std::min(top, y), bottom = std::max(bottom, y);
        }
    return fmt::format("x {} to {}, y {} to {}", left, right, top, bottom);
}

}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// Records what a VNC server on a Unix socket sends:
//
//   record SOCKET FILE [--encoding raw|tight|zrle] [--seconds N] [--megabytes N] [--type TEXT]
//
// The encoding comes first in the list sent, then raw, and no other, so that a recording shows one decoder's
// work. TEXT is typed before the recording begins, "\n" as the return key.
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "display/rfb/RFBClientMessage.h"
#include "display/rfb/RFBHandshake.h"
#include "display/rfb/RFBStream.h"
#include "rfb/Recording.h"
#include "runtime/Sockets.h"

namespace dorvane::bench {
namespace {

using namespace std::chrono_literals;
using Time = std::chrono::steady_clock;

constexpr auto quietTime = 500ms;  // nothing for so long ends the last update

struct Options {
    std::string socket, file, type;
    std::vector<RFBEncoding> encodings;
    std::chrono::milliseconds duration{5'000};
    std::size_t maximumBytes = 16'000'000;
};

/// A blocking client; asks for the next update at each header, as the product does, until told to stop.
class Recorder : private RFBStreamHandler {
  public:
    explicit Recorder(const Options& options)
        : options_(options), socket_(connectUnixSocket(options.socket)) {}

    Recording run() {
        shakeHands();
        type(options_.type);
        request(false);
        const auto end = Time::now() + options_.duration;
        while (Time::now() < end && recording_.stream.size() < options_.maximumBytes) receive(20ms);
        isStopping_ = true;
        while (receive(quietTime) || isInUpdate_) {
        }
        std::printf("%s: %d updates, %d rectangles, %zu bytes\n", options_.file.c_str(), updates_,
                    rectangles_, recording_.stream.size());
        return std::move(recording_);
    }

  private:
    void shakeHands() {
        RFBHandshake handshake(options_.encodings);
        Bytes waiting;
        while (!handshake.isFinished()) {
            readSome(waiting);
            Bytes answer;
            const auto taken = handshake.consume(waiting, answer);
            waiting.erase(waiting.begin(), waiting.begin() + std::ptrdiff_t(taken));
            send(answer);
        }
        recording_.width = handshake.serverInit().width;
        recording_.height = handshake.serverInit().height;
        framebuffer_.resize(recording_.width, recording_.height);
    }

    void type(std::string_view text) {
        constexpr std::uint32_t returnKey = 0xFF0D;
        for (const char c : text) {
            const auto keysym = c == '\n' ? returnKey : static_cast<std::uint32_t>(c);
            for (const bool down : {true, false}) {
                send(RFBClientMessage::KeyEvent{down, keysym}.encoded());
                std::this_thread::sleep_for(60ms);
            }
        }
    }

    bool receive(std::chrono::milliseconds patience) {
        pollfd readable{socket_.get(), POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(patience.count())) <= 0) return false;
        Bytes bytes;
        readSome(bytes);
        recording_.stream.insert(recording_.stream.end(), bytes.begin(), bytes.end());
        stream_.feed(bytes);
        return true;
    }

    void readSome(Bytes& into) {
        Bytes chunk(1'048'576);
        const auto count = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
        if (count <= 0) throw std::runtime_error("the server has hung up");
        into.insert(into.end(), chunk.begin(), chunk.begin() + count);
    }

    void send(const Bytes& bytes) {
        if (::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) != ssize_t(bytes.size()))
            throw std::runtime_error("the server takes nothing");
    }

    void request(bool incremental) {
        send(RFBClientMessage::FramebufferUpdateRequest{incremental, 0, 0, framebuffer_.width(),
                                                        framebuffer_.height()}
                 .encoded());
    }

    void updateBegan(int rectangleCount) override {
        isInUpdate_ = rectangleCount > 0;
        ++updates_;
        rectangles_ += rectangleCount;
        if (!isStopping_) request(true);
    }
    void updateFinished(bool) override { isInUpdate_ = false; }
    void desktopResized(int, int) override { throw std::runtime_error("the screen changed its size"); }
    void extendedKeyEventsSupported() override {}
    void cursorReceived() override {}

    const Options& options_;
    FileDescriptor socket_;
    Recording recording_;
    RFBFramebuffer framebuffer_;
    RFBStream stream_{framebuffer_, *this};
    bool isStopping_ = false, isInUpdate_ = false;
    int updates_ = 0, rectangles_ = 0;
};

std::string unescaped(std::string text) {
    for (std::size_t at = 0; (at = text.find("\\n", at)) != std::string::npos;) text.replace(at, 2, "\n");
    return text;
}

RFBEncoding encodingNamed(const std::string& name) {
    if (name == "raw") return RFBEncoding::raw;
    if (name == "tight") return RFBEncoding::tight;
    if (name == "zrle") return RFBEncoding::zrle;
    throw std::runtime_error("unknown encoding " + name);
}

Options parse(const std::vector<std::string>& arguments) {
    if (arguments.size() < 2) throw std::runtime_error("usage: record SOCKET FILE [options]");
    Options options;
    options.socket = arguments[0];
    options.file = arguments[1];
    options.encodings = {RFBEncoding::raw};
    for (std::size_t i = 2; i + 1 < arguments.size(); i += 2) {
        const auto& value = arguments[i + 1];
        if (arguments[i] == "--encoding")
            options.encodings = {encodingNamed(value), RFBEncoding::raw, RFBEncoding::compressLevel5};
        if (arguments[i] == "--seconds")
            options.duration = std::chrono::milliseconds(std::stoi(value) * 1'000);
        if (arguments[i] == "--megabytes") options.maximumBytes = std::stoul(value) * 1'000'000;
        if (arguments[i] == "--type") options.type = unescaped(value);
    }
    return options;
}

}  // namespace
}  // namespace dorvane::bench

int main(int count, char** arguments) {
    using namespace dorvane::bench;
    try {
        const auto options = parse({arguments + 1, arguments + count});
        Recorder(options).run().save(options.file);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "record: %s\n", error.what());
        return 1;
    }
}

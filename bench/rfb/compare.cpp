// SPDX-License-Identifier: Apache-2.0
// Decodes recordings with this client and with libvncclient, in turns in one run, and prints CPU time per megapixel
// and the ratio:
//
//   compare [--rounds N] FILE...
//
// Both read the same bytes from a Unix socket, as from a server, into a 32-bit framebuffer; another thread writes them.
// Only the reading thread's CPU time counts, in user and kernel mode. The two pictures are compared at the end; a
// difference is a failure.
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <thread>

#include "display/rfb/RFBStream.h"
#include "rfb/LibVNCPlayer.h"
#include "rfb/Recording.h"
#include "rfb/ThreadTime.h"
#include "runtime/FileDescriptor.h"
#include "runtime/SystemError.h"

namespace dorvane::bench {
namespace {

class Silence : public RFBStreamHandler {
    void updateBegan(int) override {}
    void updateFinished(bool) override {}
    void desktopResized(int, int) override { throw std::runtime_error("the recording changes its size"); }
    void extendedKeyEventsSupported() override {}
    void cursorReceived() override {}
};

/// What is in a recording, to know how much work it is.
struct Census {
    std::size_t messages = 0, rectangles = 0, pixels = 0;
    std::map<std::int32_t, std::size_t> encodings;
};

Census count(const Recording& recording) {
    Census census;
    RFBByteReader reader(recording.stream);
    while (reader.remaining() > 0) {
        ++census.messages;
        const auto type = *reader.readUInt8();
        if (type == 2) continue;
        if (type == 3) {
            reader.skip(3);
            reader.skip(*reader.readUInt32());
            continue;
        }
        reader.skip(1);
        for (int left = reader.readUInt16().value(); left > 0; --left) {
            const auto position = reader.position();
            const auto header = RFBRectangle::readHeader(reader).value();
            reader.setPosition(position);
            if (!RFBRectangle::parse(reader, RFBPixelFormat::bgra32())) throw std::runtime_error("cut off");
            ++census.encodings[header.encoding];
            if (header.encoding < 0) continue;
            ++census.rectangles;
            census.pixels += header.pixelCount();
        }
    }
    return census;
}

double play(const Recording& recording, int fd, RFBFramebuffer& framebuffer) {
    Silence handler;
    framebuffer.resize(recording.width, recording.height);
    RFBStream stream(framebuffer, handler);
    const auto start = threadSeconds();
    for (;;) {
        const auto spans = stream.prepare();
        const auto count = ::readv(fd, spans.data(), static_cast<int>(spans.size()));
        if (count <= 0) break;
        stream.commit(std::size_t(count));
    }
    return threadSeconds() - start;
}

/// A socket from which the recording can be read, once.
class Feed {
  public:
    explicit Feed(const Recording& recording) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw POSIXError(errno);
        reader_ = FileDescriptor(ends[0]);
        writer_ = FileDescriptor(ends[1]);
        ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
        thread_ = std::jthread([this, &recording] { write(recording.stream); });
    }
    ~Feed() { reader_.reset(); }

    int descriptor() const { return reader_.get(); }

  private:
    static constexpr int bufferBytes = 8'388'608;  // as the product asks for
    static constexpr std::size_t chunkBytes = 262'144;

    void write(ByteView bytes) {
        while (!bytes.empty()) {
            const auto count = ::send(writer_.get(), bytes.data(), std::min(chunkBytes, bytes.size()), MSG_NOSIGNAL);
            if (count <= 0) return;
            bytes = bytes.subspan(std::size_t(count));
        }
        writer_.reset();
    }

    FileDescriptor reader_, writer_;
    std::jthread thread_;
};

bool showTheSame(ByteView own, const Bytes& other) {
    for (std::size_t i = 0; i < own.size(); ++i)
        if (i % 4 != 3 && own[i] != other[i]) return false;
    return true;
}

std::string describe(const Census& census) {
    std::string text;
    for (const auto& [encoding, number] : census.encodings)
        text += " " + std::to_string(encoding) + ":" + std::to_string(number);
    return text;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Whether both showed the same.
bool compare(const std::string& file, int rounds) {
    const auto recording = Recording::load(file);
    const auto census = count(recording);
    RFBFramebuffer framebuffer;
    Bytes screen(std::size_t(recording.width) * std::size_t(recording.height) * 4);
    std::vector<double> own, other, ratios;
    for (int round = -1; round < rounds; ++round) {
        double times[2];
        for (const int turn : {round & 1, ~round & 1}) {
            const Feed feed(recording);
            times[turn] = turn == 0 ? play(recording, feed.descriptor(), framebuffer)
                                    : playWithLibVNC(recording, feed.descriptor(), census.messages, screen);
        }
        if (round < 0) continue;  // the first warms caches and pages
        own.push_back(times[0]);
        other.push_back(times[1]);
        ratios.push_back(times[0] / times[1]);
    }
    const auto megapixels = double(census.pixels) / 1e6;
    const bool same = showTheSame(framebuffer.pixels(), screen);
    std::printf("%-28s %7.1f Mpx %6zu rects %5zu updates | own %7.3f  libvncclient %7.3f ms/Mpx | ratio %.3f%s\n",
                std::filesystem::path(file).stem().c_str(), megapixels, census.rectangles, census.messages,
                median(own) * 1e3 / megapixels, median(other) * 1e3 / megapixels, median(ratios),
                same ? "" : "  DIFFERENT PICTURES");
    std::printf("%-28s encodings%s\n", "", describe(census).c_str());
    return same;
}

}  // namespace
}  // namespace dorvane::bench

int main(int count, char** arguments) {
    std::vector<std::string> files(arguments + 1, arguments + count);
    int rounds = 9;
    if (files.size() > 1 && files[0] == "--rounds") {
        rounds = std::stoi(files[1]);
        files.erase(files.begin(), files.begin() + 2);
    }
    try {
        bool allSame = true;
        for (const auto& file : files) allSame = dorvane::bench::compare(file, rounds) && allSame;
        return allSame ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "compare: %s\n", error.what());
        return 1;
    }
}

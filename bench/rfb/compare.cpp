// SPDX-License-Identifier: Apache-2.0
// Decodes recordings with this client and with libvncclient, in turns in one run, and prints CPU time per
// megapixel and the ratio:
//
//   compare [--rounds N] FILE...
//
// The bytes come from memory just written, where reading is one copy for both, and then through a Unix socket
// as from a server, with the kernel's time counted. Both draw into a 32-bit framebuffer. The two pictures are
// compared; a difference is a failure.
#include <algorithm>
#include <cstdio>
#include <map>

#include "display/rfb/RFBStream.h"
#include "rfb/LibVNCPlayer.h"
#include "rfb/Recording.h"
#include "rfb/Source.h"
#include "rfb/ThreadTime.h"

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

double play(const Recording& recording, Source& source, RFBFramebuffer& framebuffer) {
    Silence handler;
    framebuffer.resize(recording.width, recording.height);
    RFBStream stream(framebuffer, handler);
    const auto start = threadSeconds();
    while (const auto count = source.readv(stream.prepare())) stream.commit(count);
    return threadSeconds() - start;
}

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

/// CPU seconds of both, round by round.
struct Result {
    std::vector<double> own, other;

    void print(const char* name, double megapixels) const {
        std::vector<double> ratios;
        for (std::size_t i = 0; i < own.size(); ++i) ratios.push_back(own[i] / other[i]);
        std::printf("  %s %7.3f / %7.3f ms/Mpx = %.3f", name, median(own) * 1e3 / megapixels,
                    median(other) * 1e3 / megapixels, median(ratios));
    }
};

class Comparison {
  public:
    explicit Comparison(const std::string& file)
        : name_(std::filesystem::path(file).stem()),
          recording_(Recording::load(file)),
          census_(count(recording_)),
          screen_(std::size_t(recording_.width) * std::size_t(recording_.height) * 4) {}

    /// Whether both showed the same.
    bool run(int rounds) {
        const auto memory = measure(memorySource, rounds), socket = measure(socketSource, rounds);
        const auto megapixels = double(census_.pixels) / 1e6;
        const bool same = showTheSame(framebuffer_.pixels(), screen_);
        std::printf("%-22s %6.1f Mpx %6zu rects %4zu updates", name_.c_str(), megapixels, census_.rectangles,
                    census_.messages);
        memory.print("| memory", megapixels);
        socket.print("| socket", megapixels);
        std::printf("%s\n%22s encodings%s\n", same ? "" : "  DIFFERENT PICTURES", "",
                    describe(census_).c_str());
        return same;
    }

  private:
    Result measure(std::unique_ptr<Source> (*open)(ByteView), int rounds) {
        Result result;
        for (int round = -1; round < rounds; ++round) {
            double times[2];
            for (const int turn : {round & 1, ~round & 1}) {
                const auto source = open(recording_.stream);
                times[turn] =
                    turn == 0 ? play(recording_, *source, framebuffer_)
                              : playWithLibVNC(recording_, source->descriptor(), census_.messages, screen_);
                times[turn] -= source->serverSeconds();
            }
            if (round < 0) continue;  // the first warms caches and pages
            result.own.push_back(times[0]);
            result.other.push_back(times[1]);
        }
        return result;
    }

    std::string name_;
    Recording recording_;
    Census census_;
    RFBFramebuffer framebuffer_;
    Bytes screen_;
};

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
        for (const auto& file : files) allSame = dorvane::bench::Comparison(file).run(rounds) && allSame;
        return allSame ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "compare: %s\n", error.what());
        return 1;
    }
}

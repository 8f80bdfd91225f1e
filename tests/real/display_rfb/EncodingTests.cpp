// SPDX-License-Identifier: Apache-2.0
// The same screen in every encoding, from the two servers that matter: QEMU's and an X server's.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>

#include "display/rfb/RFBConnection.h"
#include "display_rfb/Servers.h"
#include "display_rfb/Viewer.h"
#include "rfb/LibVNCPlayer.h"

namespace dorvane::test {
namespace {

/// A client's encodings, and what the servers then mainly use; Xvnc makes a choice of its own for a client
/// that likes raw best but takes others too.
struct Choice {
    std::string name;
    std::vector<RFBEncoding> encodings;
    std::optional<RFBEncoding> fromQEMU, fromXvnc = fromQEMU;
};

// No JPEG quality is asked for, so Tight loses nothing.
const std::vector<Choice> choices{
    {"raw", {RFBEncoding::raw}, RFBEncoding::raw},
    {"tight", {RFBEncoding::tight}, RFBEncoding::tight},
    {"tight at level 5", {RFBEncoding::tight, RFBEncoding::compressLevel5}, RFBEncoding::tight},
    {"zrle", {RFBEncoding::zrle}, RFBEncoding::zrle},
    {"the default", RFBConnection::encodings(false), RFBEncoding::raw, std::nullopt},
    {"the default with Tight", RFBConnection::encodings(true), RFBEncoding::tight},
};

/// A new client's look at the screen, in raw pixels.
Bytes look(const std::string& socket) {
    Viewer viewer(socket, {RFBEncoding::raw});
    viewer.settle();
    return {viewer.screen().pixels().begin(), viewer.screen().pixels().end()};
}

/// A comparison of encodings means little before the scene is on the screen.
bool isColorful(ByteView pixels) {
    std::set<std::uint32_t> colors;
    for (std::size_t i = 0; i < pixels.size() && colors.size() <= 100; i += 4)
        colors.insert(loadPixel(&pixels[i]));
    return colors.size() > 100;
}

struct Silence : RFBStreamHandler {
    void updateBegan(int) override {}
    void updateFinished(bool) override {}
    void desktopResized(int, int) override { FAIL() << "nobody asked for another size"; }
    void extendedKeyEventsSupported() override {}
    void cursorReceived() override {}
};

/// Draws all that the viewer has received once more, beside libvncclient, and compares the pictures at some
/// fifty moments.
void compareWithAPeer(const Viewer& viewer, const std::string& name) {
    const int width = viewer.screen().width(), height = viewer.screen().height();
    const auto& ends = viewer.messageEnds();
    Silence silence;
    RFBFramebuffer screen;
    screen.resize(width, height);
    RFBStream stream(screen, silence);
    Bytes expected(screen.pixels().size());
    const auto step = std::max<std::size_t>(ends.size() / 50, 1);
    std::size_t messages = 0, bytes = 0;
    const auto compare = [&] {
        if (++messages % step != 0 && messages != ends.size()) return;
        const auto next = viewer.received().first(ends[messages - 1]).subspan(bytes);
        stream.feed(next);
        bytes += next.size();
        EXPECT_EQ(differences(screen.pixels(), expected), 0u)
            << name << " after message " << messages << ", at " << differingArea(screen, expected);
    };
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) throw POSIXError(errno);
    const FileDescriptor writer(sockets[1]);
    const std::jthread server([fd = writer.get(), left = viewer.received()]() mutable {
        while (!left.empty()) {
            const auto count = ::send(fd, left.data(), left.size(), MSG_NOSIGNAL);
            if (count <= 0) return;
            left = left.subspan(std::size_t(count));
        }
    });
    const FileDescriptor reader(sockets[0]);  // goes first, so that the thread ends whatever happens
    bench::playWithLibVNC({width, height, {}}, reader.get(), ends.size(), expected, compare);
    EXPECT_EQ(messages, ends.size());
    EXPECT_TRUE(isColorful(expected)) << name;
}

enum class Copies { asChosen, always, never };

/// One viewer a choice, all looking at the same screen at the same time.
class Audience {
  public:
    explicit Audience(const std::string& socket, Copies copies = Copies::asChosen) {
        for (const auto& choice : choices) {
            auto encodings = choice.encodings;
            if (copies != Copies::asChosen) std::erase(encodings, RFBEncoding::copyRect);
            if (copies == Copies::always) encodings.insert(encodings.begin(), RFBEncoding::copyRect);
            viewers_.push_back(std::make_unique<Viewer>(socket, encodings));
        }
    }

    /// Until everybody has got that many rectangles in the expected encoding and that many copies.
    void watchUntil(std::size_t rectangles, std::size_t copies) {
        bool isEnough = false;
        for (const auto end = Time::now() + 30s; !isEnough && Time::now() < end;) {
            isEnough = true;
            for (std::size_t i = 0; i < choices.size(); ++i) {
                viewers_[i]->receive(2ms);
                isEnough = isEnough && hasRectangles(i, choices[i].fromXvnc, rectangles) &&
                           hasRectangles(i, RFBEncoding::copyRect, copies);
            }
        }
        EXPECT_TRUE(isEnough);
    }
    void expectPicture(ByteView expected, const std::string& when) {
        for (std::size_t i = 0; i < choices.size(); ++i) {
            auto& viewer = *viewers_[i];
            viewer.receiveUntil([&] { return differences(viewer.screen().pixels(), expected) == 0; }, 10s);
            EXPECT_EQ(differences(viewer.screen().pixels(), expected), 0u)
                << choices[i].name << " " << when << ", at " << differingArea(viewer.screen(), expected);
        }
    }
    /// Compares with what a new client sees, again until the screen has come to rest.
    void expectTheScreenOf(const std::string& socket) {
        Bytes expected;
        for (const auto end = Time::now() + 20s; Time::now() < end;) {
            expected = look(socket);
            if (isColorful(expected) && show(expected)) return;
        }
        EXPECT_TRUE(isColorful(expected));
        expectPicture(expected, "although the screen rests");
    }
    void expectSameAsAPeer() {
        for (std::size_t i = 0; i < choices.size(); ++i) {
            viewers_[i]->settle();
            compareWithAPeer(*viewers_[i], choices[i].name);
        }
    }
    void expectRectangles(std::optional<RFBEncoding> Choice::*expected, std::size_t least) {
        for (std::size_t i = 0; i < choices.size(); ++i)
            EXPECT_TRUE(hasRectangles(i, choices[i].*expected, least)) << choices[i].name;
    }

  private:
    bool hasRectangles(std::size_t viewer, std::optional<RFBEncoding> encoding, std::size_t least) const {
        return !encoding || viewers_[viewer]->count(*encoding) >= least;
    }
    bool show(ByteView expected) {
        return std::ranges::all_of(viewers_, [&](const auto& viewer) {
            viewer->settle();
            return differences(viewer->screen().pixels(), expected) == 0;
        });
    }

    std::vector<std::unique_ptr<Viewer>> viewers_;
};

TEST(XvncEncodings, showAStillScreenAlike) {
    const XvncServer server;
    const auto scene = server.show("still");
    Audience(server.socket()).expectTheScreenOf(server.socket());
    // Now that it is complete and rests: all of it at once, in one update.
    Audience audience(server.socket());
    audience.expectTheScreenOf(server.socket());
    audience.expectRectangles(&Choice::fromXvnc, 1);
}

/// Many updates over one zlib state must end at the picture that a new client gets.
TEST(XvncEncodings, followAMovingScreen) {
    const XvncServer server;
    Audience audience(server.socket(), Copies::never);
    const auto scene = server.show("windows");
    audience.watchUntil(200, 0);
    server.rest();
    audience.expectTheScreenOf(server.socket());
}

/// Xvnc at times joins two moves of a window into one copy of an area that the client doesn't have yet, and
/// leaves a strip wrong for whatever client. So what counts is the picture that libvncclient draws of the
/// same bytes, not the screen.
TEST(XvncEncodings, copyAreasOfAMovingScreen) {
    const XvncServer server;
    Audience audience(server.socket(), Copies::always);
    const auto scene = server.show("windows");
    audience.watchUntil(200, 50);
    server.rest();
    audience.expectSameAsAPeer();
}

std::uint32_t noise(int x, int y) {
    auto value = static_cast<std::uint32_t>(x) * 2654435761u ^ static_cast<std::uint32_t>(y) * 2246822519u;
    value ^= value >> 15;
    return value * 2654435761u >> 8;
}

/// All that an encoder treats in a way of its own: one colour, two, a few, many, smooth ones and noise.
std::uint32_t sampler(int x, int y) {
    const auto byte = [](int value) { return static_cast<std::uint32_t>(value & 0xFF); };
    switch ((x / 96 + y / 80 * 3) % 6) {
        case 0:
            return 0x203040;
        case 1:
            return noise(x / 2, y / 2) % 3 == 0 ? 0xE0E0E0 : 0x101010;
        case 2:
            return noise(x, y) % 5 * 0x332211;
        case 3:
            return noise(x / 3, y / 3) % 100 * 0x010203;
        case 4:
            return byte(x) << 16 | byte(y) << 8 | byte((x + y) / 2);
        default:
            return noise(x, y);
    }
}

TEST(QEMUEncodings, showEveryPixelThatWasDrawn) {
    QEMUScreen screen;
    screen.draw(0, 0, QEMUScreen::width, QEMUScreen::height, sampler);
    Audience audience(screen.socket());
    audience.expectPicture(screen.pixels(), "at first sight");
    for (int round = 1; round <= 5; ++round) {
        // Letters here and there, as on a console, and one larger area.
        for (int i = 0; i < 100; ++i) {
            const auto place = noise(round, i);
            const int x = static_cast<int>(place % 120) * 8, y = static_cast<int>(place / 128 % 47) * 16;
            screen.draw(x, y, 8 + i % 30, 13, [&](int column, int row) {
                return noise(column + i, row + round) % 2 == 0 ? 0xC0C0C0u : 0u;
            });
        }
        screen.draw(100 * round, 90 * round, 150, 110,
                    [&](int x, int y) { return sampler(x + 37 * round, y + 61 * round); });
        audience.expectPicture(screen.pixels(), "in round " + std::to_string(round));
    }
    audience.expectRectangles(&Choice::fromQEMU, 100);
}

}  // namespace
}  // namespace dorvane::test

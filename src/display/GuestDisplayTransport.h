// SPDX-License-Identifier: Apache-2.0
// What a display client sees of a guest's screen, whatever protocol carries it.
#pragma once

#include <compare>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "base/Bytes.h"
#include "runtime/Clock.h"

namespace dorvane {

/// One finished picture: rows from top to bottom, four bytes a pixel (blue, green, red, unused), row stride
/// width times 4. Immutable once published, so it is shared between threads and never copied.
struct FrameImage {
    int width = 0;
    int height = 0;
    Bytes pixels;
};
using FramePointer = std::shared_ptr<const FrameImage>;

/// A key as both worlds name it; a transport takes what it can send.
struct GuestKey {
    std::uint32_t keysym = 0;   // X11 keysym, 0 when there is none
    std::uint16_t keyCode = 0;  // the host's virtual key code

    auto operator<=>(const GuestKey&) const = default;
};

struct GuestCursor {
    FramePointer image;
    int hotSpotX = 0;
    int hotSpotY = 0;
};

/// Which transport reaches the screen.
struct VNCChannel {
    std::string socketPath;
    bool operator==(const VNCChannel&) const = default;
};
struct DBusChannel {
    std::string qmpSocketPath;
    bool operator==(const DBusChannel&) const = default;
};
using GuestDisplayChannel = std::variant<VNCChannel, DBusChannel>;

/// A connection to one guest screen. The callbacks are set before `connect` and run on the transport's own
/// queue; each event is told once. `close` and destruction are safe at any time, from any thread.
class GuestDisplayTransport {
  public:
    virtual ~GuestDisplayTransport() = default;

    std::function<void(FramePointer)> onFrame;
    std::function<void(int width, int height)> onResize;
    /// The end, with its cause; no error when the peer or `close` ended the stream.
    std::function<void(std::exception_ptr)> onDisconnect;
    std::function<void(std::optional<GuestCursor>)> onCursor;

    /// Returns once the stream has begun; throws when it can't within `timeout`.
    virtual Task<void> connect(Duration timeout) = 0;
    /// Coordinates are guest pixels, brought into 0 to 65,535 where they lie outside; the mask has bit 0 for
    /// the left button.
    virtual void sendPointer(std::uint8_t buttonMask, int x, int y) = 0;
    virtual void sendKey(const GuestKey& key, bool down) = 0;
    virtual void close() = 0;
};

/// Makes the transport for a channel; throws when this build has none for it.
class GuestDisplayTransportMaking {
  public:
    virtual ~GuestDisplayTransportMaking() = default;
    virtual std::shared_ptr<GuestDisplayTransport> makeTransport(const GuestDisplayChannel& channel) = 0;
};

}  // namespace dorvane

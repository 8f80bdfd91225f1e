// SPDX-License-Identifier: Apache-2.0
// What the client says to the server (RFC 6143, section 7.5, and QEMU's extended key event), as bytes.
#pragma once

#include <string>
#include <variant>
#include <vector>

#include "display/rfb/RFBEncoding.h"
#include "display/rfb/RFBPixelFormat.h"

namespace dorvane {

struct RFBClientMessage {
    struct SetPixelFormat {
        RFBPixelFormat format;
        Bytes encoded() const;
    };
    /// At most 65,535 encodings.
    struct SetEncodings {
        std::vector<RFBEncoding> encodings;
        Bytes encoded() const;
    };
    /// Coordinates outside 0 to 65,535 are clamped.
    struct FramebufferUpdateRequest {
        bool incremental = false;
        int x = 0, y = 0, width = 0, height = 0;
        Bytes encoded() const;
    };
    struct KeyEvent {
        bool down = false;
        std::uint32_t keysym = 0;
        Bytes encoded() const;
    };
    /// `qnum` is the PC scan code of the key.
    struct QEMUExtendedKeyEvent {
        bool down = false;
        std::uint32_t keysym = 0, qnum = 0;
        Bytes encoded() const;
    };
    /// Coordinates outside 0 to 65,535 are clamped.
    struct PointerEvent {
        std::uint8_t buttonMask = 0;
        int x = 0, y = 0;
        Bytes encoded() const;
    };
    /// Latin-1 on the wire: a scalar beyond 255 becomes a question mark.
    struct ClientCutText {
        std::string text;
        Bytes encoded() const;
    };

    using Content = std::variant<SetPixelFormat, SetEncodings, FramebufferUpdateRequest, KeyEvent,
                                 QEMUExtendedKeyEvent, PointerEvent, ClientCutText>;
    Content content;

    Bytes encoded() const {
        return std::visit([](const auto& message) { return message.encoded(); }, content);
    }
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "display/rfb/RFBClientMessage.h"

#include <algorithm>
#include <cassert>

#include "base/Text.h"

namespace dorvane {
namespace {

enum MessageType : std::uint8_t {
    setPixelFormat = 0,
    setEncodings = 2,
    framebufferUpdateRequest = 3,
    keyEvent = 4,
    pointerEvent = 5,
    clientCutText = 6,
    qemuClientMessage = 255,
};
constexpr std::uint8_t qemuExtendedKeyEventSubtype = 0;

std::uint16_t clamped(int value) { return static_cast<std::uint16_t>(std::clamp(value, 0, 65535)); }

}  // namespace

Bytes RFBClientMessage::SetPixelFormat::encoded() const {
    Bytes out{setPixelFormat, 0, 0, 0};
    const auto body = format.encoded();
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes RFBClientMessage::SetEncodings::encoded() const {
    assert(encodings.size() <= 65535);
    Bytes out{setEncodings, 0};
    appendBE16(out, static_cast<std::uint16_t>(encodings.size()));
    for (const auto encoding : encodings) appendBE32(out, static_cast<std::uint32_t>(rawValue(encoding)));
    return out;
}

Bytes RFBClientMessage::FramebufferUpdateRequest::encoded() const {
    Bytes out{framebufferUpdateRequest, incremental};
    for (const int value : {x, y, width, height}) appendBE16(out, clamped(value));
    return out;
}

Bytes RFBClientMessage::KeyEvent::encoded() const {
    Bytes out{keyEvent, down, 0, 0};
    appendBE32(out, keysym);
    return out;
}

Bytes RFBClientMessage::QEMUExtendedKeyEvent::encoded() const {
    Bytes out{qemuClientMessage, qemuExtendedKeyEventSubtype, 0, down};
    appendBE32(out, keysym);
    appendBE32(out, qnum);
    return out;
}

Bytes RFBClientMessage::PointerEvent::encoded() const {
    Bytes out{pointerEvent, buttonMask};
    appendBE16(out, clamped(x));
    appendBE16(out, clamped(y));
    return out;
}

Bytes RFBClientMessage::ClientCutText::encoded() const {
    Bytes out{clientCutText, 0, 0, 0};
    const auto characters = scalars(text);
    appendBE32(out, static_cast<std::uint32_t>(characters.size()));
    for (const auto scalar : characters)
        out.push_back(static_cast<std::uint8_t>(scalar < 256 ? scalar : U'?'));
    return out;
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Encodings and pseudo-encodings that this client knows; the values are those of the protocol's registry.
#pragma once

#include <cstdint>

namespace dorvane {

enum class RFBEncoding : std::int32_t {
    raw = 0,
    copyRect = 1,
    zrle = 16,
    tight = 7,
    compressLevel5 = -251,
    desktopSize = -223,
    cursor = -239,
    extendedDesktopSize = -308,
    qemuExtendedKeyEvent = -258,
};

constexpr std::int32_t rawValue(RFBEncoding encoding) { return static_cast<std::int32_t>(encoding); }

enum class RFBServerMessageType : std::uint8_t {
    framebufferUpdate = 0,
    setColourMapEntries = 1,
    bell = 2,
    serverCutText = 3,
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// From the host's virtual key codes to PC set-1 scan codes, for guests that take keys as positions.
#pragma once

#include <cstdint>
#include <optional>

namespace dorvane {

struct PCScanCodeMap {
    /// The set-1 code of a host virtual key code, with 0xE0 prefixed keys as the protocol's table gives them;
    /// absent for a key code without a position.
    static std::optional<std::uint32_t> scanCode(std::uint16_t keyCode);
};

}  // namespace dorvane

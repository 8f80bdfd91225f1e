// SPDX-License-Identifier: Apache-2.0
// From the host's key events to X11 keysyms (X Window System Protocol, appendix A).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace dorvane {

struct VNCKeyMap {
    /// The keysym of a host virtual key code: of the key itself when it is a special key or a modifier, else
    /// of the first scalar of what it types (UTF-8). Of the modifiers only Shift counts in what it types: "A"
    /// comes with Shift held. A lower-case letter then would make QEMU believe that Caps Lock is on. Absent
    /// when it types nothing.
    static std::optional<std::uint32_t> keysym(std::uint16_t keyCode,
                                               std::optional<std::string_view> charactersIgnoringModifiers);
    /// The modifier flag that says whether this key is down; absent for a key that is no modifier.
    static std::optional<std::uint32_t> modifierFlag(std::uint16_t keyCode);
};

}  // namespace dorvane

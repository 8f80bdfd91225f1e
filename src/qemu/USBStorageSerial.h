// SPDX-License-Identifier: Apache-2.0
// Serial numbers of the guest's USB disks.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace dorvane {

struct USBStorageSerial {
    /// The prefix and the decimal index, zero-padded to 16 characters in all and cut to the first 16:
    /// ("DORVANEISO", 0) gives "DORVANEISO000000".
    static std::string indexed(std::string_view prefix, std::size_t index);
};

}  // namespace dorvane

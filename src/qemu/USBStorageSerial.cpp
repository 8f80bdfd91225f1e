// SPDX-License-Identifier: Apache-2.0
#include "qemu/USBStorageSerial.h"

namespace dorvane {

std::string USBStorageSerial::indexed(std::string_view prefix, std::size_t index) {
    constexpr std::size_t width = 16;
    const auto number = std::to_string(index);
    std::string serial(prefix);
    if (serial.size() + number.size() < width) serial.append(width - serial.size() - number.size(), '0');
    serial += number;
    return serial.substr(0, width);
}

}  // namespace dorvane

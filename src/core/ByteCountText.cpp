// SPDX-License-Identifier: Apache-2.0
#include "core/ByteCountText.h"

#include <fmt/format.h>

#include <array>

namespace dorvane {

std::string byteCountText(std::int64_t bytes) {
    constexpr std::array units{"KB", "MB", "GB", "TB", "PB", "EB"};
    constexpr double step = 1000;
    if (bytes == 1) return "1 byte";
    if (bytes > -1000 && bytes < 1000) return fmt::format("{} bytes", bytes);
    auto value = static_cast<double>(bytes) / step;
    std::size_t unit = 0;
    const auto rounded = [&] {
        return unit == 0 ? fmt::format("{:.0f}", value) : fmt::format("{:.1f}", value);
    };
    auto text = rounded();
    // What rounds up to a thousand belongs to the next unit.
    while (unit + 1 < units.size() &&
           (value >= step || value <= -step || text == "1000" || text == "1000.0")) {
        value /= step;
        ++unit;
        text = rounded();
    }
    if (text.ends_with(".0")) text.resize(text.size() - 2);
    return text + " " + units[unit];
}

}  // namespace dorvane

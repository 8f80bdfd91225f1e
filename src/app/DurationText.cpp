// SPDX-License-Identifier: Apache-2.0
#include "app/DurationText.h"

#include <charconv>

namespace dorvane {
namespace {

constexpr std::int64_t maximumSeconds = 366LL * 86400;

/// 0 for what is no unit.
std::int64_t secondsOf(char unit) {
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return 86400;
        case 'w':
            return 604800;
        default:
            return 0;
    }
}

}  // namespace

std::optional<std::int64_t> parseDurationText(std::string_view text) {
    const bool isNegative = text.starts_with('-');
    if (isNegative) text.remove_prefix(1);
    if (text.empty()) return std::nullopt;
    const bool isBare = text.find_first_not_of("0123456789") == std::string_view::npos;
    std::int64_t total = 0;
    while (!text.empty()) {
        std::uint32_t count = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
        if (error != std::errc()) return std::nullopt;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        const auto unit = isBare ? secondsOf('m') : text.empty() ? 0 : secondsOf(text.front());
        if (unit == 0) return std::nullopt;
        total += count * unit;
        if (total > maximumSeconds) return std::nullopt;
        if (!isBare) text.remove_prefix(1);
    }
    return isNegative ? -total : total;
}

}  // namespace dorvane

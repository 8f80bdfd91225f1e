// SPDX-License-Identifier: Apache-2.0
#include "base/Localized.h"

namespace dorvane {
namespace {

constexpr std::string_view conversions = "@dufsgx";

/// The length of the placeholder that starts with the '%' at `at`, or 0 when none does.
std::size_t placeholderLength(std::string_view format, std::size_t at) {
    auto end = at + 1;
    if (end < format.size() && format[end] == '{') {
        end = format.find('}', end);
        if (end == std::string_view::npos) return 0;
        ++end;
    }
    while (end < format.size() && (format[end] == 'l' || format[end] == 'h')) ++end;
    if (end >= format.size() || conversions.find(format[end]) == std::string_view::npos) return 0;
    return end + 1 - at;
}

}  // namespace

std::string fillPlaceholders(std::string_view format, std::span<const std::string> arguments) {
    std::string text;
    std::size_t next = 0;
    for (std::size_t at = 0; at < format.size();) {
        const auto length = format[at] == '%' ? placeholderLength(format, at) : 0;
        if (format.substr(at, 2) == "%%") {
            text.push_back('%');
            at += 2;
        } else if (length > 0 && next < arguments.size()) {
            text += arguments[next++];
            at += length;
        } else {
            text.push_back(format[at++]);
        }
    }
    return text;
}

}  // namespace dorvane

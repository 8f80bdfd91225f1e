// SPDX-License-Identifier: Apache-2.0
// The one place where a text with placeholders becomes a sentence.
//
// Texts carry the placeholders of the string catalogue: %@ (any value's text), %lld, %ld, %d, %llu, %hu,
// %hhu, %f, %s, and for log lines the %{public}s family; %% is a percent sign. Arguments are taken in order.
// A placeholder without an argument stays as written, so that a wrong text is seen instead of hidden.
#pragma once

#include <fmt/format.h>

#include <array>
#include <span>
#include <string>
#include <string_view>

namespace dorvane {

std::string fillPlaceholders(std::string_view format, std::span<const std::string> arguments);

template <typename... Arguments>
std::string formatted(std::string_view format, const Arguments&... arguments) {
    const std::array<std::string, sizeof...(Arguments)> texts{fmt::format("{}", arguments)...};
    return fillPlaceholders(format, texts);
}

/// A user-facing sentence; the English text is the key of the string table. This build carries English only.
template <typename... Arguments>
std::string localized(std::string_view english, const Arguments&... arguments) {
    return formatted(english, arguments...);
}

}  // namespace dorvane

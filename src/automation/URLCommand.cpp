// SPDX-License-Identifier: Apache-2.0
#include "automation/URLCommand.h"

#include <algorithm>
#include <charconv>

#include "base/Text.h"

namespace dorvane {
namespace {

constexpr auto scheme = "dorvane";

/// Absent when a percent sign isn't followed by two hexadecimal digits.
std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const auto digits = text.substr(i + 1, 2);
        unsigned byte = 0;
        if (digits.size() < 2 || !std::ranges::all_of(digits, isASCIIHexDigit)) return std::nullopt;
        std::from_chars(digits.data(), digits.data() + 2, byte, 16);
        decoded += static_cast<char>(byte);
        i += 2;
    }
    return decoded;
}

/// What stands before the separator; `text` keeps what stands behind it.
std::string_view takeUntil(std::string_view& text, char separator) {
    const auto end = text.find(separator);
    const auto piece = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    return piece;
}

/// The host where the link names one, else the path.
std::string_view verbOf(std::string_view hierarchy) {
    if (!hierarchy.starts_with("//")) return hierarchy;
    hierarchy.remove_prefix(2);
    auto authority = takeUntil(hierarchy, '/');
    if (const auto user = authority.find('@'); user != std::string_view::npos)
        authority.remove_prefix(user + 1);
    return takeUntil(authority, ':');
}

std::optional<std::string> queryValue(std::string_view query, std::string_view key) {
    while (!query.empty()) {
        auto item = takeUntil(query, '&');
        const bool hasValue = item.find('=') != std::string_view::npos;
        if (percentDecoded(takeUntil(item, '=')) != key) continue;
        const auto decoded = hasValue ? percentDecoded(item) : std::nullopt;
        const auto value = trimmed(decoded ? std::string_view(*decoded) : std::string_view{});
        if (value.empty() || !isValidUTF8(value)) return std::nullopt;
        return std::string(value);
    }
    return std::nullopt;
}

std::optional<URLCommand::Kind> kindOf(std::string_view verb) {
    using Kind = URLCommand::Kind;
    if (verb == "start") return Kind::start;
    if (verb == "stop") return Kind::stop;
    if (verb == "show") return Kind::show;
    if (verb == "snapshot") return Kind::snapshot;
    return std::nullopt;
}

}  // namespace

std::optional<URLCommand> URLCommand::parse(std::string_view text, Date now) {
    auto link = takeUntil(text, '#');
    if (asciiLowercased(takeUntil(link, ':')) != scheme) return std::nullopt;
    const auto verb = percentDecoded(verbOf(takeUntil(link, '?')));
    const auto query = link;
    if (!verb || !percentDecoded(query)) return std::nullopt;
    const auto kind = kindOf(asciiLowercased(*verb));
    const auto vm = queryValue(query, "vm");
    if (!vm || !kind) return std::nullopt;
    URLCommand command{*kind, *vm};
    if (kind == Kind::snapshot) command.name = queryValue(query, "name").value_or(defaultSnapshotName(now));
    return command;
}

std::string URLCommand::defaultSnapshotName(Date now) {
    auto moment = iso8601Text(now);
    moment.pop_back();  // the zone's letter
    return "Shortcut " + moment;
}

}  // namespace dorvane

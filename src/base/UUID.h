// SPDX-License-Identifier: Apache-2.0
// A 128-bit identifier with the platform's upper-case text form.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace dorvane {

class UUID {
  public:
    /// A new random (version 4) identifier from the system's secure generator.
    static UUID random();
    /// Accepts the 36-character form with hyphens, upper or lower case; nothing else.
    static std::optional<UUID> parse(std::string_view text);

    /// 36 characters, upper case, as it stands in files and on the wire.
    std::string text() const;
    /// The first eight characters of `text()`.
    std::string shortText() const { return text().substr(0, 8); }

    auto operator<=>(const UUID&) const = default;

  private:
    friend struct std::hash<UUID>;
    std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace dorvane

template <>
struct std::hash<dorvane::UUID> {
    std::size_t operator()(const dorvane::UUID& id) const noexcept {
        return std::hash<std::string_view>{}(
            {reinterpret_cast<const char*>(id.bytes_.data()), id.bytes_.size()});
    }
};

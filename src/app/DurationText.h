// SPDX-License-Identifier: Apache-2.0
// Spans of time as people type them.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace dorvane {

/// Seconds of "90m", "1d12h", "2w" or "45s"; a bare number counts minutes, and "-" in front shortens. Absent
/// for anything else and beyond 366 days.
std::optional<std::int64_t> parseDurationText(std::string_view text);

}  // namespace dorvane

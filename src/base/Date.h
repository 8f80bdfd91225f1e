// SPDX-License-Identifier: Apache-2.0
// Points in wall-clock time and their ISO 8601 text.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace dorvane {

/// UTC, to the microsecond.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

/// "2026-11-21T08:43:19Z": UTC, whole seconds (fractions are cut).
std::string iso8601Text(Date date);
/// Reads exactly the form that `iso8601Text` writes.
std::optional<Date> parseISO8601(std::string_view text);

}  // namespace dorvane

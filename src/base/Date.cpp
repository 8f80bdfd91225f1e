// SPDX-License-Identifier: Apache-2.0
#include "base/Date.h"

#include <fmt/format.h>

#include <array>
#include <charconv>

namespace dorvane {
namespace {

std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
    int value = 0;
    const auto* first = text.data() + at;
    for (const auto* p = first; p != first + count; ++p) {
        if (*p < '0' || *p > '9') return std::nullopt;
        value = value * 10 + (*p - '0');
    }
    return value;
}

}  // namespace

std::string iso8601Text(Date date) {
    const auto day = std::chrono::floor<std::chrono::days>(date);
    const std::chrono::year_month_day ymd{day};
    const std::chrono::hh_mm_ss time{std::chrono::floor<std::chrono::seconds>(date - day)};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(ymd.year()),
                       static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

std::optional<Date> parseISO8601(std::string_view text) {
    if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text[19] != 'Z')
        return std::nullopt;
    const auto year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
    const auto hour = digits(text, 11, 2), minute = digits(text, 14, 2), second = digits(text, 17, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    const auto ymd = std::chrono::year{*year} / *month / *day;
    if (!ymd.ok() || *hour > 23 || *minute > 59 || *second > 60) return std::nullopt;
    return std::chrono::sys_days{ymd} + std::chrono::hours{*hour} + std::chrono::minutes{*minute} +
           std::chrono::seconds{*second};
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "app/ProgressDisplay.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace dorvane {
namespace {

constexpr int barWidth = 30;
constexpr int stepPercent = 10;
constexpr auto eraseLine = "\r\x1b[K";

/// Absent for what has no measure, and for a number that is none.
std::optional<int> percentOf(const ControlProgress& progress) {
    if (!progress.fraction || std::isnan(*progress.fraction)) return std::nullopt;
    return static_cast<int>(std::clamp(*progress.fraction, 0.0, 1.0) * 100);
}

std::string bar(const std::string& message, std::optional<int> percent) {
    if (!percent) return message + "…";
    const auto filled = static_cast<std::size_t>(*percent * barWidth / 100);
    return fmt::format("{} [{}{}] {:3}%", message, std::string(filled, '#'),
                       std::string(barWidth - filled, ' '), *percent);
}

std::string plainLine(const std::string& message, std::optional<int> percent) {
    const int step = percent.value_or(0) / stepPercent * stepPercent;
    return step == 0 ? message + "…" : fmt::format("{} {}%", message, step);
}

}  // namespace

void ProgressDisplay::show(const ControlProgress& progress) {
    const auto percent = percentOf(progress);
    const auto line = isTerminal_ ? bar(progress.message, percent) : plainLine(progress.message, percent);
    if (line == shown_) return;
    shown_ = line;
    if (isTerminal_)
        out_ << eraseLine << line << std::flush;
    else
        out_ << line << '\n' << std::flush;
}

void ProgressDisplay::clear() {
    if (isTerminal_ && !shown_.empty()) out_ << eraseLine << std::flush;
    shown_.clear();
}

}  // namespace dorvane

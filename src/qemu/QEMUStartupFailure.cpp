// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUStartupFailure.h"

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane::QEMUStartupFailure {
namespace {

constexpr std::size_t maximumLines = 5;
constexpr std::size_t maximumCharacters = 300;

/// "qemu-system-aarch64: message" without the program's name.
std::string_view withoutProgramName(std::string_view line) {
    constexpr std::string_view prefix = "qemu-system-";
    if (asciiLowercased(line.substr(0, prefix.size())) != prefix) return line;
    const auto end = line.find_first_of(": \t", prefix.size());
    if (end == std::string_view::npos || line[end] != ':') return line;
    return trimmed(line.substr(end + 1));
}

std::string shortened(std::string_view line) {
    const auto kept = prefixOfScalars(line, maximumCharacters);
    return kept.size() == line.size() ? std::string(line) : std::string(kept) + "...";
}

}  // namespace

std::vector<std::string> detailLines(std::string_view fromStderr) {
    std::vector<std::string> lines;
    for (const auto& raw : split(fromStderr, '\n')) {
        const auto line = withoutProgramName(trimmed(raw));
        if (!line.empty()) lines.push_back(shortened(line));
    }
    if (lines.size() > maximumLines) lines.erase(lines.begin(), lines.end() - maximumLines);
    return lines;
}

std::string reason(const ExitStatus& status, std::string_view stderrText) {
    auto lines = detailLines(stderrText);
    lines.insert(
        lines.begin(),
        status.wasSignaled()
            ? localized("The virtual machine was terminated by signal %lld during startup.", status.code)
            : localized("The virtual machine exited during startup with status %lld.", status.code));
    return joined(lines, "\n");
}

std::string exitReason(const ExitStatus& status, std::string_view stderrText) {
    const auto lines = detailLines(stderrText);
    return lines.empty() ? localized("The virtual machine exited with status %lld.", status.code)
                         : joined(lines, "\n");
}

}  // namespace dorvane::QEMUStartupFailure

// SPDX-License-Identifier: Apache-2.0
#include "core/VMConfiguration.h"

#include <array>

#include "base/Localized.h"
#include "base/Text.h"
#include "core/DorvaneError.h"

namespace dorvane {
namespace {

constexpr std::size_t maximumNameBytes = 200;

void requireRange(const std::optional<std::int64_t>& value, std::int64_t low, std::int64_t high,
                  const char* message) {
    if (value && (*value < low || *value > high))
        throw DorvaneError(DorvaneError::Case::invalidConfiguration, localized(message, low, high));
}

struct ScalarRange {
    char32_t first, last;
};
/// Unicode's control (Cc) and format (Cf) characters.
constexpr std::array controlCharacters{
    ScalarRange{0x00, 0x1F},       ScalarRange{0x7F, 0x9F},       ScalarRange{0xAD, 0xAD},
    ScalarRange{0x600, 0x605},     ScalarRange{0x61C, 0x61C},     ScalarRange{0x6DD, 0x6DD},
    ScalarRange{0x70F, 0x70F},     ScalarRange{0x890, 0x891},     ScalarRange{0x8E2, 0x8E2},
    ScalarRange{0x180E, 0x180E},   ScalarRange{0x200B, 0x200F},   ScalarRange{0x202A, 0x202E},
    ScalarRange{0x2060, 0x2064},   ScalarRange{0x2066, 0x206F},   ScalarRange{0xFEFF, 0xFEFF},
    ScalarRange{0xFFF9, 0xFFFB},   ScalarRange{0x110BD, 0x110BD}, ScalarRange{0x110CD, 0x110CD},
    ScalarRange{0x13430, 0x1343F}, ScalarRange{0x1BCA0, 0x1BCA3}, ScalarRange{0x1D173, 0x1D17A},
    ScalarRange{0xE0001, 0xE0001}, ScalarRange{0xE0020, 0xE007F}};

bool isControlCharacter(char32_t scalar) {
    return std::any_of(controlCharacters.begin(), controlCharacters.end(),
                       [&](const auto& range) { return scalar >= range.first && scalar <= range.last; });
}

bool isValidName(const std::string& name) {
    if (name.empty() || name.front() == '.' || name.size() > maximumNameBytes) return false;
    if (name.find_first_of("/:") != std::string::npos || !isValidUTF8(name)) return false;
    const auto characters = scalars(name);
    return std::none_of(characters.begin(), characters.end(), isControlCharacter);
}

}  // namespace

void VMConfiguration::validateRanges() const {
    requireRange(cpuCount, 1, 1024, "CPU count must be between %lld and %lld.");
    requireRange(memoryMB, 256, 16777216, "Memory must be between %lld MB and %lld MB.");
    requireRange(diskSizeGB, 1, 65536, "Disk size must be between %lld GB and %lld GB.");
}

void VMNameRules::validate(const std::string& name) {
    if (isValidName(name)) return;
    throw DorvaneError(
        DorvaneError::Case::invalidConfiguration,
        localized("VM names cannot be empty, start with a period, or contain \"/\", \":\" or control "
                  "characters."));
}

}  // namespace dorvane

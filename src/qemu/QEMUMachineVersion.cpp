// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUMachineVersion.h"

#include <charconv>

namespace dorvane {
namespace {

std::optional<int> number(std::string_view digits) {
    constexpr std::size_t maximumDigits = 4;
    if (digits.empty() || digits.size() > maximumDigits) return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    const bool isWhole = error == std::errc() && end == digits.data() + digits.size();
    return isWhole && value >= 0 ? std::optional(value) : std::nullopt;
}

}  // namespace

std::optional<QEMUMachineVersion> QEMUMachineVersion::parse(std::string_view machineType) {
    constexpr std::string_view prefix = "virt-";
    if (!machineType.starts_with(prefix)) return std::nullopt;
    machineType.remove_prefix(prefix.size());
    const auto dot = machineType.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const auto major = number(machineType.substr(0, dot));
    const auto minor = number(machineType.substr(dot + 1));
    if (!major || !minor) return std::nullopt;
    return QEMUMachineVersion{*major, *minor};
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The version in a machine type such as "virt-11.1".
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace dorvane {

struct QEMUMachineVersion {
    int major = 0, minor = 0;

    /// Absent for anything but "virt-" and two numbers of at most four digits.
    static std::optional<QEMUMachineVersion> parse(std::string_view machineType);
    std::string machineType() const { return "virt-" + std::to_string(major) + "." + std::to_string(minor); }

    auto operator<=>(const QEMUMachineVersion&) const = default;
};

}  // namespace dorvane

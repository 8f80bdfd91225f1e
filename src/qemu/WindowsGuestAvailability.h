// SPDX-License-Identifier: Apache-2.0
// Whether this host and this build can run Windows guests at all. Pure functions.
#pragma once

#include <optional>
#include <string_view>

#include "platform/HostSystem.h"

namespace dorvane::WindowsGuestAvailability {

struct Unavailable {
    enum class Kind { requiresNewerMacOS, engineMissing, trustedPlatformModuleMissing };
    Kind kind = Kind::engineMissing;
    /// Only of requiresNewerMacOS.
    OperatingSystemVersion minimum = {};
    OperatingSystemVersion current = {};

    /// The sentence for the user.
    std::string reason() const;
    bool operator==(const Unavailable&) const = default;
};

/// The application's own information: "major.minor.patch", absent parts being 0. Absent when unparsable.
std::optional<OperatingSystemVersion> parseVersion(std::string_view text);
/// Absent when the host is new enough, or when no minimum is declared.
std::optional<Unavailable> systemRequirementProblem(const OperatingSystemVersion& systemVersion,
                                                    const std::optional<OperatingSystemVersion>& minimum);

}  // namespace dorvane::WindowsGuestAvailability

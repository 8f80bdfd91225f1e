// SPDX-License-Identifier: Apache-2.0
#include "qemu/WindowsGuestAvailability.h"

#include <charconv>

#include "base/Localized.h"
#include "base/Text.h"

namespace dorvane::WindowsGuestAvailability {

std::string Unavailable::reason() const {
    switch (kind) {
        case Kind::requiresNewerMacOS:
            return localized("Windows virtual machines need macOS %@ or later. This Mac is running macOS %@.",
                             minimum.text(), current.text());
        case Kind::engineMissing:
            return localized("This version of Dorvane does not include Windows support.");
        case Kind::trustedPlatformModuleMissing:
            break;
    }
    return localized("Windows 11 requires a TPM, which this version of Dorvane cannot provide.");
}

std::optional<OperatingSystemVersion> parseVersion(std::string_view text) {
    const auto pieces = split(text, '.');
    if (pieces.size() > 3) return std::nullopt;
    OperatingSystemVersion version;
    int* const parts[] = {&version.major, &version.minor, &version.patch};
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const auto& piece = pieces[i];
        const auto* const end = piece.data() + piece.size();
        const auto [stop, error] = std::from_chars(piece.data(), end, *parts[i]);
        if (error != std::errc() || stop != end || *parts[i] < 0) return std::nullopt;
    }
    return version;
}

std::optional<Unavailable> systemRequirementProblem(const OperatingSystemVersion& systemVersion,
                                                    const std::optional<OperatingSystemVersion>& minimum) {
    if (!minimum || systemVersion >= *minimum) return std::nullopt;
    return Unavailable{Unavailable::Kind::requiresNewerMacOS, *minimum, systemVersion};
}

}  // namespace dorvane::WindowsGuestAvailability

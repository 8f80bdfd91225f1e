// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUWindowsGuestSupport.h"

#include "qemu/WindowsGuestAvailability.h"
#include "qemu/WindowsSharesPortAllocator.h"

namespace dorvane {

QEMUWindowsGuestSupport::QEMUWindowsGuestSupport(
    const std::optional<QEMURuntimeResources>& resources, const OperatingSystemVersion& hostSystemVersion,
    const std::optional<OperatingSystemVersion>& declaredMinimum) {
    using namespace WindowsGuestAvailability;
    auto problem = systemRequirementProblem(hostSystemVersion, declaredMinimum);
    const bool hasTool = resources && std::filesystem::exists(resources->imageTool);
    if (!problem && !hasTool) problem = Unavailable{.kind = Unavailable::Kind::engineMissing};
    if (!problem && !resources->swtpm)
        problem = Unavailable{.kind = Unavailable::Kind::trustedPlatformModuleMissing};
    if (problem) unavailableReason_ = problem->reason();
    if (hasTool) tool_.emplace(resources->imageTool);
}

int QEMUWindowsGuestSupport::pickFreeSharesPort() const {
    return WindowsSharesPortAllocator::pickFreePort(windowsSharesPorts);
}

std::string QEMUWindowsGuestSupport::makeSharesToken() const {
    return WindowsSharesPortAllocator::makeToken();
}

}  // namespace dorvane

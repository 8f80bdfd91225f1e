// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUWindowsGuestSupport.h"

#include "qemu/QEMUDiskImageTool.h"
#include "qemu/WindowsGuestAvailability.h"
#include "qemu/WindowsSharesPortAllocator.h"

namespace dorvane {
namespace {

bool hasImageTool(const std::optional<QEMURuntimeResources>& resources) {
    return resources && std::filesystem::exists(resources->imageTool);
}

}  // namespace

std::optional<std::string> QEMUWindowsGuestSupport::unavailableReason() const {
    using namespace WindowsGuestAvailability;
    if (const auto problem = systemRequirementProblem(hostSystemVersion_, minimum_)) return problem->reason();
    const auto resources = locate_();
    if (!hasImageTool(resources)) return Unavailable{.kind = Unavailable::Kind::engineMissing}.reason();
    if (!resources->swtpm)
        return Unavailable{.kind = Unavailable::Kind::trustedPlatformModuleMissing}.reason();
    return std::nullopt;
}

std::unique_ptr<const DiskImageTool> QEMUWindowsGuestSupport::diskImageTool() const {
    const auto resources = locate_();
    if (!hasImageTool(resources)) return nullptr;
    return std::make_unique<QEMUDiskImageTool>(resources->imageTool);
}

int QEMUWindowsGuestSupport::pickFreeSharesPort() const {
    return WindowsSharesPortAllocator::pickFreePort(windowsSharesPorts);
}

std::string QEMUWindowsGuestSupport::makeSharesToken() const {
    return WindowsSharesPortAllocator::makeToken();
}

}  // namespace dorvane

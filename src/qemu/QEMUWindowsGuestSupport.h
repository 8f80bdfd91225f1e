// SPDX-License-Identifier: Apache-2.0
// What the library asks before it makes a Windows machine.
#pragma once

#include "core/WindowsGuestSupport.h"
#include "platform/HostSystem.h"
#include "qemu/QEMUDiskImageTool.h"
#include "qemu/QEMURuntimeResources.h"

namespace dorvane {

/// Looks for the resources once, when made.
class QEMUWindowsGuestSupport : public WindowsGuestSupport {
  public:
    QEMUWindowsGuestSupport(const std::optional<QEMURuntimeResources>& resources,
                            const OperatingSystemVersion& hostSystemVersion,
                            const std::optional<OperatingSystemVersion>& declaredMinimum);

    std::optional<std::string> unavailableReason() const override { return unavailableReason_; }
    const DiskImageTool* diskImageTool() const override { return tool_ ? &*tool_ : nullptr; }
    int pickFreeSharesPort() const override;
    std::string makeSharesToken() const override;

  private:
    std::optional<std::string> unavailableReason_;
    std::optional<QEMUDiskImageTool> tool_;
};

}  // namespace dorvane

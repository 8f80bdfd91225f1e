// SPDX-License-Identifier: Apache-2.0
// What the library asks before it makes a Windows machine.
#pragma once

#include <functional>

#include "core/WindowsGuestSupport.h"
#include "platform/HostSystem.h"
#include "qemu/QEMURuntimeResources.h"

namespace dorvane {

/// Looks for the resources at each question: they may be installed while the program runs.
class QEMUWindowsGuestSupport : public WindowsGuestSupport {
  public:
    using Locator = std::function<std::optional<QEMURuntimeResources>()>;

    QEMUWindowsGuestSupport(Locator locate, const OperatingSystemVersion& hostSystemVersion,
                            const std::optional<OperatingSystemVersion>& declaredMinimum)
        : locate_(std::move(locate)), hostSystemVersion_(hostSystemVersion), minimum_(declaredMinimum) {}

    std::optional<std::string> unavailableReason() const override;
    std::unique_ptr<const DiskImageTool> diskImageTool() const override;
    int pickFreeSharesPort() const override;
    std::string makeSharesToken() const override;

  private:
    Locator locate_;
    OperatingSystemVersion hostSystemVersion_;
    std::optional<OperatingSystemVersion> minimum_;
};

}  // namespace dorvane

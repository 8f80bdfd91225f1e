// SPDX-License-Identifier: Apache-2.0
// What the library needs of the QEMU engine's folder to make and change Windows machines.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "core/DiskImageTool.h"

namespace dorvane {

/// Blocking and safe on any thread: it looks for programs and binds ports.
class WindowsGuestSupport {
  public:
    virtual ~WindowsGuestSupport() = default;

    /// The localised sentence that says why Windows guests can't run here; absent when they can.
    virtual std::optional<std::string> unavailableReason() const = 0;
    /// Null without the QEMU resources.
    virtual std::unique_ptr<const DiskImageTool> diskImageTool() const = 0;
    /// A loopback port for the folder server of a new machine.
    virtual int pickFreeSharesPort() const = 0;
    /// The secret in the folder server's address.
    virtual std::string makeSharesToken() const = 0;
};

}  // namespace dorvane

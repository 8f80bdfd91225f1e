// SPDX-License-Identifier: Apache-2.0
// Setting a guest's clock after its memory was brought back.
#pragma once

#include <functional>

#include "core/VMRecord.h"
#include "runtime/Clock.h"

namespace dorvane {

/// Main thread only.
class GuestClockSyncing {
  public:
    virtual ~GuestClockSyncing() = default;

    /// Pushes the host's time over SSH at the loopback port, trying again every `delay` while `isVMRunning`
    /// says so. Returns whether the guest's clock was set; throws nothing but a cancellation.
    virtual Task<bool> syncAfterRestore(VMRecordPointer vm, int port, std::function<bool()> isVMRunning,
                                        int attempts, Duration delay) = 0;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Writing a machine's memory into its bundle and powering it off, so that the next start goes on from there.
#pragma once

#include "core/VMAccess.h"
#include "core/VMLibrary.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

/// Main thread only.
class VMSuspender {
  public:
    VMSuspender(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access)
        : with_(with), library_(library), access_(access) {}

    /// Holds the gate throughout. Until the power goes off, a failure leaves the guest running as if nothing
    /// had happened. Throws vmBusy, vmNotRunning, invalidConfiguration, vmStartupFailed, or the engine's own
    /// error.
    Task<void> suspend(VMRecordPointer vm);
    Task<void> discardSuspendedState(VMRecordPointer vm);

  private:
    void requireSuspendable(const VMRecord& vm) const;
    Task<DorvaneVMConfig> readSuspendableConfiguration(VMBundle bundle) const;
    Task<void> saveAndPowerOff(UUID vmID, VMBundle bundle, DorvaneVMConfig config);
    Task<void> abandon(VMRecordPointer vm, bool wasPausedHere);

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
};

}  // namespace dorvane

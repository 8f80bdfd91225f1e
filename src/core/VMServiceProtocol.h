// SPDX-License-Identifier: Apache-2.0
// Every operation on the library and its machines, as the doors above see it.
#pragma once

#include "core/VMConfiguration.h"
#include "core/VMDisplayInfo.h"
#include "core/VMRecord.h"
#include "runtime/Signal.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only. Operations throw DorvaneError, or a lower error with its own words.
class VMServiceProtocol {
  public:
    virtual ~VMServiceProtocol() = default;

    /// The list as last synced from the store.
    virtual const std::vector<VMRecordPointer>& vms() const = 0;
    /// Told after each new list is published.
    Signal<> vmsChanged;

    virtual Task<void> refreshVMList() = 0;
    virtual Task<VMRecordPointer> createVM(std::string name, VMOSType os, VMConfiguration configuration) = 0;
    virtual Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) = 0;
    virtual Task<void> renameVM(VMRecordPointer vm, std::string name) = 0;
    virtual Task<void> updateVMConfiguration(VMRecordPointer vm, VMConfiguration configuration) = 0;
    virtual Task<void> deleteVM(VMRecordPointer vm, bool permanently) = 0;
    virtual Task<void> completeInstallation(VMRecordPointer vm) = 0;

    virtual Task<void> startVM(VMRecordPointer vm) = 0;
    virtual Task<void> stopVM(VMRecordPointer vm, bool force) = 0;
    virtual Task<void> restartVM(VMRecordPointer vm) = 0;
    virtual Task<void> pauseVM(VMRecordPointer vm) = 0;
    virtual Task<void> resumeVM(VMRecordPointer vm) = 0;
    virtual Task<void> suspendVM(VMRecordPointer vm) = 0;
    virtual Task<void> discardSuspendedState(VMRecordPointer vm) = 0;
    virtual Task<void> refreshVMState(VMRecordPointer vm) = 0;

    virtual std::optional<std::string> lastFailureReason(const VMRecord& vm) const = 0;
    virtual bool lastStopWasForced(const VMRecord& vm) const = 0;
    /// Absent when the VM doesn't run.
    virtual Task<std::optional<VMDisplayInfo>> getVMDisplayInfo(VMRecordPointer vm) = 0;
    virtual Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) = 0;
    /// A PNG of the guest's screen; absent when it has no screen that the host can see.
    virtual Task<std::optional<Bytes>> captureHostFramebuffer(VMRecordPointer vm) = 0;
    virtual Task<std::string> getVMLogs(VMRecordPointer vm) = 0;
};

}  // namespace dorvane

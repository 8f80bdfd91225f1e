// SPDX-License-Identifier: Apache-2.0
// A library of machines in memory: operations change the records as the real service does, without an engine.
#pragma once

#include <map>
#include <set>

#include "core/DorvaneError.h"
#include "core/VMServiceProtocol.h"

namespace dorvane::test {

class FakeVMService : public VMServiceProtocol {
  public:
    /// What the host knows about one machine while it runs.
    struct Guest {
        std::optional<std::string> ipAddress, resolution;
        std::optional<NetworkSummary> network;
        std::optional<int> sshPort;
        std::optional<Bytes> screen;
        /// It doesn't react to a polite request to shut down.
        bool ignoresShutdown = false;
    };

    VMRecordPointer add(std::string name, VMOSType os = VMOSType::linux, VMStatus status = VMStatus::stopped);
    Guest& guest(const VMRecordPointer& vm) { return guests_[vm->id]; }

    /// Thrown by the next operation that changes a machine, once.
    std::exception_ptr nextFailure;
    VMConfiguration lastConfiguration;

    const std::vector<VMRecordPointer>& vms() const override { return listed_; }
    Task<void> refreshVMList() override;
    Task<VMRecordPointer> createVM(std::string name, VMOSType os, VMConfiguration configuration) override;
    Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) override;
    Task<void> renameVM(VMRecordPointer vm, std::string name) override;
    Task<void> updateVMConfiguration(VMRecordPointer, VMConfiguration configuration) override;
    Task<void> deleteVM(VMRecordPointer vm, bool permanently) override;
    Task<void> completeInstallation(VMRecordPointer) override { co_return; }

    Task<void> startVM(VMRecordPointer vm) override;
    Task<void> stopVM(VMRecordPointer vm, bool force) override;
    Task<void> restartVM(VMRecordPointer vm) override;
    Task<void> pauseVM(VMRecordPointer vm) override { return change(vm, VMStatus::paused); }
    Task<void> resumeVM(VMRecordPointer vm) override { return change(vm, VMStatus::running); }
    Task<void> suspendVM(VMRecordPointer vm) override { return change(vm, VMStatus::stopped); }
    Task<void> discardSuspendedState(VMRecordPointer) override { co_return; }
    Task<void> refreshVMState(VMRecordPointer) override { co_return; }

    std::optional<std::string> lastFailureReason(const VMRecord&) const override { return {}; }
    bool lastStopWasForced(const VMRecord& vm) const override { return wasForced_.contains(vm.id); }
    Task<std::optional<VMDisplayInfo>> getVMDisplayInfo(VMRecordPointer vm) override;
    Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) override { co_return guest(vm).sshPort; }
    Task<std::optional<Bytes>> captureHostFramebuffer(VMRecordPointer vm) override {
        co_return guest(vm).screen;
    }
    Task<std::string> getVMLogs(VMRecordPointer) override { co_return ""; }

    std::vector<std::string> trashed, erased;

  private:
    void fail();
    Task<void> change(VMRecordPointer vm, VMStatus status);

    std::vector<VMRecordPointer> stored_, listed_;
    std::map<UUID, Guest> guests_;
    std::set<UUID> wasForced_;
};

}  // namespace dorvane::test

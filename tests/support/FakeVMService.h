// SPDX-License-Identifier: Apache-2.0
// A library of machines in memory: operations change the records as the real service does, without an engine.
#pragma once

#include <map>

#include "core/DorvaneError.h"
#include "core/VMServiceProtocol.h"

namespace dorvane::test {

class FakeVMService : public VMServiceProtocol {
  public:
    /// What the host knows about one machine while it runs.
    struct Guest {
        std::optional<std::string> ipAddress;
        std::optional<std::string> resolution;
        std::optional<NetworkSummary> network;
        std::optional<int> sshPort;
        std::optional<Bytes> screen;
        /// It doesn't react to a polite request to shut down.
        bool ignoresShutdown = false;
    };

    VMRecordPointer add(std::string name, VMOSType os = VMOSType::linux, VMStatus status = VMStatus::stopped);
    Guest& guest(const VMRecordPointer& vm);

    /// Thrown by the next operation that changes a machine, once.
    std::exception_ptr nextFailure;
    VMConfiguration lastConfiguration;

    const std::vector<VMRecordPointer>& vms() const override;
    Task<void> refreshVMList() override;
    Task<VMRecordPointer> createVM(std::string name, VMOSType os, VMConfiguration configuration) override;
    Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) override;
    Task<void> renameVM(VMRecordPointer vm, std::string name) override;
    Task<void> updateVMConfiguration(VMRecordPointer, VMConfiguration configuration) override;
    Task<void> deleteVM(VMRecordPointer vm, bool permanently) override;
    Task<void> completeInstallation(VMRecordPointer) override;

    Task<void> startVM(VMRecordPointer vm) override;
    Task<void> stopVM(VMRecordPointer vm, bool force) override;
    Task<void> restartVM(VMRecordPointer vm) override;
    Task<void> pauseVM(VMRecordPointer vm) override;
    Task<void> resumeVM(VMRecordPointer vm) override;
    Task<void> suspendVM(VMRecordPointer vm) override;
    Task<void> discardSuspendedState(VMRecordPointer) override;
    Task<void> refreshVMState(VMRecordPointer) override;

    std::optional<std::string> lastFailureReason(const VMRecord&) const override;
    bool lastStopWasForced(const VMRecord& vm) const override;
    Task<std::optional<VMDisplayInfo>> getVMDisplayInfo(VMRecordPointer vm) override;
    Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) override;
    Task<std::optional<Bytes>> captureHostFramebuffer(VMRecordPointer vm) override;
    Task<std::string> getVMLogs(VMRecordPointer) override;

    std::vector<std::string> trashed, erased;

  private:
    void fail();

    std::vector<VMRecordPointer> stored_, listed_;
    std::map<UUID, Guest> guests_;
    std::map<UUID, bool> wasForced_;
};

}  // namespace dorvane::test

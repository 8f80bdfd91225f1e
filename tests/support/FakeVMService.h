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

    VMRecordPointer add(std::string name, VMOSType os = VMOSType::linux,
                        VMStatus status = VMStatus::stopped) {
        auto record = std::make_shared<VMRecord>();
        record->name = std::move(name);
        record->osType = os;
        record->status = status;
        record->cpuCount = 2;
        record->memoryMB = 4096;
        stored_.push_back(record);
        return record;
    }
    Guest& guest(const VMRecordPointer& vm) { return guests_[vm->id]; }

    /// Thrown by the next operation that changes a machine, once.
    std::exception_ptr nextFailure;
    VMConfiguration lastConfiguration;

    const std::vector<VMRecordPointer>& vms() const override { return listed_; }
    Task<void> refreshVMList() override {
        listed_ = stored_;
        vmsChanged();
        co_return;
    }
    Task<VMRecordPointer> createVM(std::string name, VMOSType os, VMConfiguration configuration) override {
        fail();
        lastConfiguration = std::move(configuration);
        co_return add(std::move(name), os);
    }
    Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) override {
        fail();
        co_return add(std::move(newName), vm->osType);
    }
    Task<void> renameVM(VMRecordPointer vm, std::string name) override {
        fail();
        vm->name = std::move(name);
        co_return;
    }
    Task<void> updateVMConfiguration(VMRecordPointer, VMConfiguration configuration) override {
        fail();
        lastConfiguration = std::move(configuration);
        co_return;
    }
    Task<void> deleteVM(VMRecordPointer vm, bool permanently) override {
        fail();
        vm->isDeleted = true;
        std::erase(stored_, vm);
        (permanently ? erased : trashed).push_back(vm->name);
        co_return;
    }
    Task<void> completeInstallation(VMRecordPointer) override { co_return; }

    Task<void> startVM(VMRecordPointer vm) override {
        fail();
        if (vm->status == VMStatus::running)
            throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, vm->name);
        vm->status = VMStatus::running;
        co_return;
    }
    Task<void> stopVM(VMRecordPointer vm, bool force) override {
        fail();
        if (vm->status != VMStatus::running) throw DorvaneError(DorvaneError::Case::vmNotRunning, vm->name);
        vm->status = VMStatus::stopped;
        wasForced_[vm->id] = force || guests_[vm->id].ignoresShutdown;
        co_return;
    }
    Task<void> restartVM(VMRecordPointer vm) override {
        co_await stopVM(vm, false);
        co_await startVM(vm);
    }
    Task<void> pauseVM(VMRecordPointer vm) override {
        fail();
        vm->status = VMStatus::paused;
        co_return;
    }
    Task<void> resumeVM(VMRecordPointer vm) override {
        fail();
        vm->status = VMStatus::running;
        co_return;
    }
    Task<void> suspendVM(VMRecordPointer vm) override {
        fail();
        vm->status = VMStatus::stopped;
        co_return;
    }
    Task<void> discardSuspendedState(VMRecordPointer) override { co_return; }
    Task<void> refreshVMState(VMRecordPointer) override { co_return; }

    std::optional<std::string> lastFailureReason(const VMRecord&) const override { return std::nullopt; }
    bool lastStopWasForced(const VMRecord& vm) const override {
        const auto found = wasForced_.find(vm.id);
        return found != wasForced_.end() && found->second;
    }
    Task<std::optional<VMDisplayInfo>> getVMDisplayInfo(VMRecordPointer vm) override {
        std::optional<VMDisplayInfo> info;
        if (vm->status != VMStatus::running) co_return info;
        const auto& known = guests_[vm->id];
        info.emplace();
        info->ipAddress = known.ipAddress;
        info->resolution = known.resolution;
        info->network = known.network;
        co_return info;
    }
    Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) override {
        co_return guests_[vm->id].sshPort;
    }
    Task<std::optional<Bytes>> captureHostFramebuffer(VMRecordPointer vm) override {
        co_return guests_[vm->id].screen;
    }
    Task<std::string> getVMLogs(VMRecordPointer) override { co_return ""; }

    std::vector<std::string> trashed, erased;

  private:
    void fail() {
        if (auto failure = std::exchange(nextFailure, nullptr)) std::rethrow_exception(failure);
    }

    std::vector<VMRecordPointer> stored_, listed_;
    std::map<UUID, Guest> guests_;
    std::map<UUID, bool> wasForced_;
};

}  // namespace dorvane::test

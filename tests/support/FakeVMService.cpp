// SPDX-License-Identifier: Apache-2.0
#include "support/FakeVMService.h"

namespace dorvane::test {

VMRecordPointer FakeVMService::add(std::string name, VMOSType os, VMStatus status) {
    auto record = std::make_shared<VMRecord>();
    record->name = std::move(name);
    record->osType = os;
    record->status = status;
    record->cpuCount = 2;
    record->memoryMB = 4096;
    stored_.push_back(record);
    return record;
}

Task<void> FakeVMService::refreshVMList() {
    listed_ = stored_;
    vmsChanged();
    co_return;
}

Task<VMRecordPointer> FakeVMService::createVM(std::string name, VMOSType os, VMConfiguration configuration) {
    fail();
    lastConfiguration = std::move(configuration);
    co_return add(std::move(name), os);
}

Task<VMRecordPointer> FakeVMService::cloneVM(VMRecordPointer vm, std::string newName) {
    fail();
    co_return add(std::move(newName), vm->osType);
}

Task<void> FakeVMService::renameVM(VMRecordPointer vm, std::string name) {
    fail();
    vm->name = std::move(name);
    co_return;
}

Task<void> FakeVMService::updateVMConfiguration(VMRecordPointer, VMConfiguration configuration) {
    fail();
    lastConfiguration = std::move(configuration);
    co_return;
}

Task<void> FakeVMService::deleteVM(VMRecordPointer vm, bool permanently) {
    fail();
    vm->isDeleted = true;
    std::erase(stored_, vm);
    (permanently ? erased : trashed).push_back(vm->name);
    co_return;
}

Task<void> FakeVMService::startVM(VMRecordPointer vm) {
    fail();
    if (vm->status == VMStatus::running) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, vm->name);
    vm->status = VMStatus::running;
    co_return;
}

Task<void> FakeVMService::stopVM(VMRecordPointer vm, bool force) {
    fail();
    if (vm->status != VMStatus::running) throw DorvaneError(DorvaneError::Case::vmNotRunning, vm->name);
    vm->status = VMStatus::stopped;
    wasForced_.erase(vm->id);
    if (force || guest(vm).ignoresShutdown) wasForced_.insert(vm->id);
    co_return;
}

Task<void> FakeVMService::restartVM(VMRecordPointer vm) {
    co_await stopVM(vm, false);
    co_await startVM(vm);
}

Task<std::optional<VMDisplayInfo>> FakeVMService::getVMDisplayInfo(VMRecordPointer vm) {
    std::optional<VMDisplayInfo> info;
    if (vm->status != VMStatus::running) co_return info;
    const auto& known = guest(vm);
    info.emplace();
    info->ipAddress = known.ipAddress;
    info->resolution = known.resolution;
    info->network = known.network;
    co_return info;
}

void FakeVMService::fail() {
    if (auto failure = std::exchange(nextFailure, nullptr)) std::rethrow_exception(failure);
}

Task<void> FakeVMService::change(VMRecordPointer vm, VMStatus status) {
    fail();
    vm->status = status;
    co_return;
}

}  // namespace dorvane::test

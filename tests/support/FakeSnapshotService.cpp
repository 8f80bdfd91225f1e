// SPDX-License-Identifier: Apache-2.0
#include "support/FakeSnapshotService.h"

namespace dorvane::test {

VMSnapshotPointer FakeSnapshotService::add(const VMRecordPointer& vm, std::string name, VMSnapshotKind kind) {
    auto snapshot = std::make_shared<VMSnapshot>();
    snapshot->vmID = vm->id;
    snapshot->name = std::move(name);
    snapshot->createdAt = Date{} + std::chrono::seconds(nextSecond_++);
    snapshot->kindRaw = kind == VMSnapshotKind::automatic ? "automatic" : "manual";
    snapshot->logicalDiskSizeBytes = std::int64_t{64} << 30;
    all.push_back(snapshot);
    return snapshot;
}

std::vector<std::string> FakeSnapshotService::names() const {
    std::vector<std::string> result;
    for (const auto& snapshot : all) result.push_back(snapshot->name);
    return result;
}

Task<std::vector<VMSnapshotPointer>> FakeSnapshotService::listSnapshots(VMRecordPointer vm) {
    if (listFailure) std::rethrow_exception(listFailure);
    std::vector<VMSnapshotPointer> result;
    for (const auto& snapshot : all)
        if (snapshot->vmID == vm->id) result.insert(result.begin(), snapshot);
    co_return result;
}

Task<VMSnapshotPointer> FakeSnapshotService::takeSnapshot(VMRecordPointer vm, std::string name,
                                                          bool includeRAM, VMSnapshotKind kind) {
    const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
    if (takeFailure) std::rethrow_exception(takeFailure);
    if (all.size() >= maximumDepth)
        throw DorvaneError::snapshotChainTooDeep(static_cast<std::int64_t>(all.size()));
    auto snapshot = add(vm, std::move(name), kind);
    snapshot->includesRAMState = includeRAM;
    snapshot->takenWhileRunningRaw = vm->status == VMStatus::running;
    co_return snapshot;
}

Task<void> FakeSnapshotService::restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
    restored.push_back(snapshot);
    co_return;
}

Task<void> FakeSnapshotService::deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
    if (deleteFailure) std::rethrow_exception(deleteFailure);
    std::erase(all, snapshot);
    co_return;
}

Task<int> FakeSnapshotService::pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) {
    const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
    const auto surplus = std::max<std::ptrdiff_t>(std::ranges::count_if(all, isAutomatic) - keeping, 0);
    auto left = surplus;
    std::erase_if(all, [&](const auto& snapshot) { return isAutomatic(snapshot) && left-- > 0; });
    co_return static_cast<int>(surplus);
}

bool FakeSnapshotService::isAutomatic(const VMSnapshotPointer& snapshot) {
    return snapshot->kind() == VMSnapshotKind::automatic;
}

}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// Snapshots in memory, with a limit to their number as a chain of disk layers has.
#pragma once

#include <algorithm>

#include "core/DorvaneError.h"
#include "core/VMOperationGate.h"
#include "snapshots/VMSnapshotServiceProtocol.h"

namespace dorvane::test {

class FakeSnapshotService : public VMSnapshotServiceProtocol {
  public:
    /// Like the real one, it holds the machine while it changes something.
    explicit FakeSnapshotService(VMOperationGate& gate) : gate_(gate) {}

    VMSnapshotPointer add(const VMRecordPointer& vm, std::string name, VMSnapshotKind kind) {
        auto snapshot = std::make_shared<VMSnapshot>();
        snapshot->vmID = vm->id;
        snapshot->name = std::move(name);
        snapshot->createdAt = Date{} + std::chrono::seconds(nextSecond_++);
        snapshot->kindRaw = kind == VMSnapshotKind::automatic ? "automatic" : "manual";
        snapshot->logicalDiskSizeBytes = std::int64_t{64} << 30;
        all.push_back(snapshot);
        return snapshot;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const auto& snapshot : all) result.push_back(snapshot->name);
        return result;
    }

    std::vector<VMSnapshotPointer> all, restored;
    std::size_t maximumDepth = 16;
    std::exception_ptr listFailure, deleteFailure;

    Task<std::vector<VMSnapshotPointer>> listSnapshots(VMRecordPointer vm) override {
        if (listFailure) std::rethrow_exception(listFailure);
        std::vector<VMSnapshotPointer> result;
        for (const auto& snapshot : all)
            if (snapshot->vmID == vm->id) result.insert(result.begin(), snapshot);
        co_return result;
    }
    Task<VMSnapshotPointer> takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                         VMSnapshotKind kind) override {
        const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
        if (all.size() >= maximumDepth)
            throw DorvaneError::snapshotChainTooDeep(static_cast<std::int64_t>(all.size()));
        auto snapshot = add(vm, std::move(name), kind);
        snapshot->includesRAMState = includeRAM;
        snapshot->takenWhileRunningRaw = vm->status == VMStatus::running;
        co_return snapshot;
    }
    Task<void> restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override {
        const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
        restored.push_back(snapshot);
        co_return;
    }
    Task<void> deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override {
        const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
        if (deleteFailure) std::rethrow_exception(deleteFailure);
        std::erase(all, snapshot);
        co_return;
    }
    Task<int> pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) override {
        const VMOperationGate::Hold hold(gate_, vm->id, vm->name);
        const auto isAutomatic = [](const auto& each) { return each->kind() == VMSnapshotKind::automatic; };
        const auto surplus = std::max<std::ptrdiff_t>(std::ranges::count_if(all, isAutomatic) - keeping, 0);
        auto left = surplus;
        std::erase_if(all, [&](const auto& each) { return isAutomatic(each) && left-- > 0; });
        co_return static_cast<int>(surplus);
    }

  private:
    VMOperationGate& gate_;
    int nextSecond_ = 1767225600;
};

}  // namespace dorvane::test

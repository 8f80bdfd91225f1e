// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMSnapshotService.h"

#include <algorithm>

#include "base/Localized.h"
#include "snapshots/SnapshotChainRepair.h"
#include "snapshots/SnapshotFailure.h"
#include "snapshots/SnapshotMetadata.h"
#include "snapshots/SnapshotRestoration.h"

namespace dorvane {
namespace {

using Case = DorvaneError::Case;

}  // namespace

/// A bundle that has come from elsewhere brings snapshots that no row tells of yet.
Task<std::vector<VMSnapshotPointer>> VMSnapshotService::listSnapshots(VMRecordPointer vm) {
    const auto failure = co_await outcome(recover(vm));
    if (isCancellation(failure)) std::rethrow_exception(failure);
    if (failure)
        logger_.error("Could not put the files of %{public}s in order: %{public}s", vm->name,
                      localizedDescription(failure));
    auto rows = with_.modelContext.fetchSnapshots(vm->id);
    std::reverse(rows.begin(), rows.end());
    co_return rows;
}

bool VMSnapshotService::isDown(const VMRecord& vm) const {
    if (!vm.isShutDownForEditing() || isStarting(vm)) return false;
    if (with_.engine == nullptr) return true;
    return with_.engine->status(vm.id).value_or(VMStatus::stopped) == VMStatus::stopped;
}

/// Whatever is awaited here, the machine is free and not being started when it returns.
Task<void> VMSnapshotService::beginOperation(VMRecordPointer vm, Case which) {
    if (vm->isDeleted) throw DorvaneError::vmNotFound(vm->id);
    const auto failure = co_await outcome(recover(vm));
    if (failure) rethrowAsOwn(which, failure);
    with_.gate.requireFree(vm->id, vm->name);
    if (vm->isDeleted) throw DorvaneError::vmNotFound(vm->id);
    if (isStarting(*vm)) throw DorvaneError(Case::vmBusy, vm->name);
}

Task<VMSnapshotPointer> VMSnapshotService::takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                                        VMSnapshotKind kind) {
    co_await beginOperation(vm, Case::vmSnapshotFailed);
    auto operation = takeSnapshotLocked(vm, std::move(name), includeRAM, kind);
    co_return co_await with_.gate.perform(vm->id, vm->name, std::move(operation));
}

Task<void> VMSnapshotService::restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    co_await beginOperation(vm, Case::vmSnapshotRestoreFailed);
    auto operation = restoreSnapshotLocked(snapshot, vm);
    co_await with_.gate.perform(vm->id, vm->name, std::move(operation));
}

Task<void> VMSnapshotService::deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    co_await beginOperation(vm, Case::vmSnapshotDeleteFailed);
    auto operation = deleteSnapshotLocked(snapshot, vm);
    co_await with_.gate.perform(vm->id, vm->name, std::move(operation));
}

Task<int> VMSnapshotService::pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) {
    auto rows = co_await listSnapshots(vm);
    std::erase_if(rows, [](const auto& row) { return row->kind() != VMSnapshotKind::automatic; });
    int removed = 0;
    for (auto index = static_cast<std::size_t>(std::max(keeping, 0)); index < rows.size(); ++index) {
        const auto failure = co_await outcome(deleteSnapshot(rows[index], vm));
        if (isCancellation(failure)) std::rethrow_exception(failure);
        if (isCase(failure, Case::vmBusy)) {
            logger_.info("VM %{public}s 进入忙碌", vm->name);
            break;
        }
        if (failure)
            logger_.error("Failed to prune automatic snapshot %{public}s: %{public}s", rows[index]->name,
                          localizedDescription(failure));
        else
            ++removed;
    }
    co_return removed;
}

Task<void> VMSnapshotService::restoreSnapshotLocked(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    const auto refusal = [](const char* message) {
        return DorvaneError(Case::vmSnapshotRestoreFailed, localized(message));
    };
    if (snapshot->vmID != vm->id) throw refusal("This snapshot does not belong to the selected VM.");
    if (!isDown(*vm)) throw refusal("Shut down the VM before restoring a snapshot.");
    co_await ignoreCancellation();
    const SnapshotRestoration restoration(copier_, chainStore(*vm), vm->bundle(), vm->osType);
    const auto work = [&restoration, &snapshot] { return restoration.restore(*snapshot); };
    bool withMemory = false;
    std::exception_ptr failure;
    try {
        withMemory = co_await inBackground(vm, work);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        recovered_.erase(vm->id);
        rethrowAsOwn(Case::vmSnapshotRestoreFailed, failure);
    }
    co_await syncDiskSizeAfterRestore(vm);
    logger_.info("Restored snapshot '%{public}s' onto VM %{public}s (RAM: %{bool}d)", snapshot->name,
                 vm->name, withMemory);
}

Task<void> VMSnapshotService::syncDiskSizeAfterRestore(VMRecordPointer vm) {
    // The size of a layer's file says nothing.
    if (lacksImageTool(*vm)) co_return;
    const auto work = [bundle = vm->bundle(), os = vm->osType, chain = chainStore(*vm)] {
        const auto size = chain != nullptr ? chain->chainTool().virtualSize(bundle.qcow2Disk())
                                           : bundle.systemDiskLogicalSize(os);
        auto config = DorvaneVMConfig::read(bundle.configFile());
        if (config.diskSizeBytes != size) {
            config.diskSizeBytes = size;
            config.write(bundle.configFile());
        }
        return size;
    };
    std::exception_ptr failure;
    try {
        const auto size = co_await inBackground(vm, work);
        vm->diskSizeBytes = static_cast<std::int64_t>(size);
        with_.modelContext.save();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        logger_.error("Could not record the restored disk size: %{public}s", localizedDescription(failure));
}

Task<void> VMSnapshotService::deleteSnapshotLocked(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    const auto refusal = [](const char* message) {
        return DorvaneError(Case::vmSnapshotDeleteFailed, localized(message));
    };
    if (snapshot->vmID != vm->id) throw refusal("This snapshot does not belong to the selected VM.");
    if (snapshot->isDeleted) throw refusal("This snapshot has been deleted already.");
    const bool isChain = snapshot->storage() == VMSnapshotStorage::chain;
    const auto* chain = chainStore(*vm);
    if (isChain && chain == nullptr) throw refusal("The disk image tool is missing from this build.");
    co_await ignoreCancellation();
    const auto work = [bundle = vm->bundle(), id = snapshot->id, isChain, chain, down = isDown(*vm),
                       refusal] {
        if (!isChain) return SnapshotFiles(bundle, id).remove();
        if (!down && !chain->children(bundle, SnapshotChainNode::snapshot(id)).empty())
            throw refusal(
                "Shut down the VM before deleting this snapshot. Later snapshots are built on top of it and "
                "have to be merged first.");
        chain->deleteSnapshot(bundle, id);
    };
    auto failure = co_await outcome(inBackground(vm, work));
    if (!failure) failure = co_await outcome(forget(snapshot, vm));
    if (failure) {
        recovered_.erase(vm->id);
        rethrowAsOwn(Case::vmSnapshotDeleteFailed, failure);
    }
    logger_.info("Deleted snapshot '%{public}s'", snapshot->name);
}

/// Takes the row out, and what stood on the snapshot stands on its parent from now on.
Task<void> VMSnapshotService::forget(VMSnapshotPointer snapshot, VMRecordPointer vm) {
    std::vector<VMSnapshotFields> changed;
    for (const auto& row : with_.modelContext.fetchSnapshots(vm->id)) {
        if (row->parentSnapshotID != snapshot->id) continue;
        row->parentSnapshotID = snapshot->parentSnapshotID;
        changed.push_back(*row);
    }
    const auto rewrite = [bundle = vm->bundle(), &changed] {
        for (const auto& row : changed)
            SnapshotMetadata::of(row).write(SnapshotMetadata::file(bundle, row.id));
    };
    const auto failure = co_await outcome(inBackground(vm, rewrite));
    if (failure)
        logger_.error("Could not rewrite the description of a snapshot of %{public}s: %{public}s", vm->name,
                      localizedDescription(failure));
    with_.modelContext.remove(snapshot);
    with_.modelContext.save();
}

}  // namespace dorvane

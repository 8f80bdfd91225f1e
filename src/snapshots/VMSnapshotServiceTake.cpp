// SPDX-License-Identifier: Apache-2.0
// Taking a snapshot, of a machine that is down and of one that runs.
#include "base/Localized.h"
#include "base/Text.h"
#include "core/ConfigHash.h"
#include "core/DorvaneError.h"
#include "core/VMBundleReading.h"
#include "snapshots/SnapshotFailure.h"
#include "snapshots/SnapshotMetadata.h"
#include "snapshots/VMSnapshotService.h"

namespace dorvane {
namespace {

template <typename... Arguments>
DorvaneError refusal(const char* message, const Arguments&... arguments) {
    return DorvaneError(DorvaneError::Case::vmSnapshotFailed, localized(message, arguments...));
}

DorvaneVMConfig readForSnapshot(const VMBundle& bundle) {
    if (!bundle.isValid()) throw refusal("The VM bundle is incomplete at %@.", bundle.directoryURL.string());
    try {
        return DorvaneVMConfig::read(bundle.configFile());
    } catch (const std::exception&) {
        throw refusal("Could not read the VM configuration.");
    }
}

}  // namespace

/// One snapshot on its way.
struct VMSnapshotService::Capture {
    VMRecordPointer vm;
    bool includesRAM;
    const SnapshotChainStore* chain;
    bool isLive;
    VMBundle bundle;
    DorvaneVMConfig config;
    VMSnapshotPointer snapshot = std::make_shared<VMSnapshot>();
    bool wasRunning = false;
    /// What there is to undo.
    bool isLayerFrozen = false;
    /// QEMU stands on the new layer: there is no way back.
    bool isSwitched = false;
    std::exception_ptr memoryFailure = nullptr, resumeFailure = nullptr;

    SnapshotFiles files() const { return {bundle, snapshot->id}; }
    bool wantsMemory() const { return includesRAM && isLive; }
};

Task<VMSnapshotPointer> VMSnapshotService::takeSnapshotLocked(VMRecordPointer vm, std::string name,
                                                              bool includeRAM, VMSnapshotKind kind) {
    name = std::string(trimmed(name));
    if (name.empty()) throw refusal("Enter a name for the snapshot.");
    const auto bundle = vm->bundle();
    const auto read = [bundle] { return readForSnapshot(bundle); };
    auto config = co_await inBackground(vm, read);
    Capture of{vm, includeRAM, chainStore(*vm), !isDown(*vm), bundle, std::move(config)};
    requireCapturable(of);
    auto& row = *of.snapshot;
    row.vmID = vm->id;
    row.name = std::move(name);
    row.createdAt = with_.runtime.clock.date();
    row.guestOSTypeRaw = rawValue(vm->osType);
    row.configHash = configHash(of.config);
    row.kindRaw = kind == VMSnapshotKind::automatic ? "automatic" : "manual";
    if (of.chain != nullptr) row.storageRaw = "chain";
    row.takenWhileRunningRaw = of.isLive;
    std::exception_ptr failure;
    try {
        co_await capture(&of);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await ignoreCancellation();
        co_await undo(&of);
        rethrowAs(DorvaneError::Case::vmSnapshotFailed, failure);
    }
    if (of.memoryFailure)
        throw refusal(
            "The disk was captured, but the memory could not be saved (%@). A disk-only snapshot was kept.",
            localizedDescription(of.memoryFailure));
    if (of.resumeFailure)
        throw refusal("The snapshot was taken, but the VM could not be resumed (%@).",
                      localizedDescription(of.resumeFailure));
    co_return of.snapshot;
}

void VMSnapshotService::requireCapturable(const Capture& of) const {
    if (!of.isLive) return;
    if (!of.wantsMemory()) {
        if (of.chain == nullptr) throw refusal("Shut down the VM before taking a disk-only snapshot.");
        return;
    }
    if (of.vm->usbStorageDevices && !of.vm->usbStorageDevices->empty())
        throw refusal(
            "A snapshot with memory can't be taken while a USB storage device is attached, because restoring "
            "it "
            "would corrupt that device. Detach the device, or take a disk-only snapshot.");
    if (of.config.isGraphicsAccelerated())
        throw refusal(
            "A snapshot with memory can't be taken while graphics acceleration is on. Take a disk-only "
            "snapshot "
            "instead.");
    if (with_.engine != nullptr && !with_.engine->canSaveStateNow(of.vm->osType))
        throw refusal(
            "A snapshot with memory can only be taken while this Mac is unlocked. Unlock it, or take a "
            "disk-only snapshot.");
}

Task<void> VMSnapshotService::capture(Capture* of) {
    const auto begin = [bundle = of->bundle, files = of->files(), chain = of->chain, os = of->vm->osType] {
        std::filesystem::create_directories(files.directory);
        return chain != nullptr ? chain->chainTool().virtualSize(bundle.qcow2Disk())
                                : bundle.systemDiskLogicalSize(os);
    };
    const auto size = co_await inBackground(of->vm, begin);
    of->snapshot->logicalDiskSizeBytes = static_cast<std::int64_t>(size);
    if (of->isLive && with_.engine == nullptr) throw refusal("Live snapshots are unavailable right now.");
    if (of->chain != nullptr) co_await requireRoomInChain(*of);
    if (!of->isLive)
        co_await captureStopped(of);
    else if (of->chain != nullptr)
        co_await takeLiveQEMUSnapshot(of);
    else
        co_await captureLiveSnapshot(of);
    co_await keep(of);
}

/// A depth that can't be read is no refusal: the capture itself will tell what is wrong.
Task<void> VMSnapshotService::requireRoomInChain(const Capture& of) const {
    const auto measure = [&of] {
        try {
            return of.chain->depth(of.bundle);
        } catch (const std::exception&) {
            return 0;
        }
    };
    const int depth = co_await inBackground(of.vm, measure);
    if (depth > maximumChainDepth) throw DorvaneError::snapshotChainTooDeep(depth);
}

Task<void> VMSnapshotService::captureStopped(Capture* of) {
    // From here on it is quick, and half of it is worse than all of it.
    co_await ignoreCancellation();
    const auto work = [this, of] {
        const auto os = of->vm->osType;
        if (of->chain == nullptr) return copier_.cloneDisk(of->bundle, of->files(), os);
        of->snapshot->parentSnapshotID = of->chain->capture(of->bundle, of->snapshot->id);
        of->isLayerFrozen = true;
        copier_.cloneSettings(of->bundle, of->files(), os);
    };
    co_await inBackground(of->vm, work);
}

Task<void> VMSnapshotService::takeLiveQEMUSnapshot(Capture* of) {
    const auto id = of->vm->id;
    co_await ignoreCancellation();
    of->wasRunning = with_.engine->status(id) == VMStatus::running;
    std::exception_ptr failure;
    try {
        if (of->wasRunning) co_await with_.engine->pause(id);
        co_await switchToNewLayer(of);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await resumed(*of);
        std::rethrow_exception(failure);
    }
    if (of->wantsMemory()) co_await saveMemory(of);
    of->resumeFailure = co_await resumed(*of);
}

/// The guest stands still, and so its files are copied as they are.
Task<void> VMSnapshotService::switchToNewLayer(Capture* of) {
    const auto id = of->snapshot->id;
    const auto freeze = [this, of, id] {
        copier_.cloneSettings(of->bundle, of->files(), of->vm->osType);
        return of->chain->captureWhileRunning(of->bundle, id);
    };
    const auto captured = co_await inBackground(of->vm, freeze);
    std::exception_ptr failure;
    try {
        const auto frozen = SnapshotChainNode::snapshot(id).diskURL(of->bundle);
        co_await with_.engine->attachSystemDiskOverlay(of->vm->id, of->bundle.qcow2Disk(), frozen,
                                                       captured.parentRewrite);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        const auto takeBack = [of, id, &captured] {
            of->chain->uncaptureRunning(of->bundle, id, captured.parentID);
        };
        co_await inBackground(of->vm, takeBack);
        if (isCancellation(failure) || isCase(failure, DorvaneError::Case::vmSnapshotFailed))
            std::rethrow_exception(failure);
        // The engine's own cases speak of another operation.
        throw DorvaneError(DorvaneError::Case::vmSnapshotFailed, localizedDescription(failure));
    }
    of->isSwitched = true;
    of->snapshot->parentSnapshotID = captured.parentID;
}

/// The disk is captured already: without its memory the snapshot is worth keeping.
Task<void> VMSnapshotService::saveMemory(Capture* of) {
    try {
        co_await with_.engine->saveState(of->vm->id, of->files().state());
        of->snapshot->includesRAMState = true;
    } catch (...) {
        of->memoryFailure = std::current_exception();
    }
    if (!of->memoryFailure) co_return;
    logger_.error("内存迁移失败,快照降级为仅磁盘: %{public}s", localizedDescription(of->memoryFailure));
    const auto removal = [files = of->files()] { files.removeState(); };
    co_await inBackground(of->vm, removal);
}

Task<void> VMSnapshotService::captureLiveSnapshot(Capture* of) {
    const auto id = of->vm->id;
    co_await ignoreCancellation();
    of->wasRunning = with_.engine->status(id) == VMStatus::running;
    std::exception_ptr failure;
    try {
        if (of->wasRunning) co_await with_.engine->pause(id);
        co_await with_.engine->saveState(id, of->files().state());
        of->snapshot->includesRAMState = true;
        const auto copy = [this, of] { copier_.cloneDisk(of->bundle, of->files(), of->vm->osType); };
        co_await inBackground(of->vm, copy);
    } catch (...) {
        failure = std::current_exception();
    }
    of->resumeFailure = co_await resumed(*of);
    if (failure) std::rethrow_exception(failure);
}

/// Lets a machine go on that ran before; says what kept it from doing so.
Task<std::exception_ptr> VMSnapshotService::resumed(const Capture& of) const {
    std::exception_ptr failure;
    if (!of.wasRunning) co_return failure;
    try {
        co_await with_.engine->resume(of.vm->id);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        logger_.error("Could not resume %{public}s after a snapshot: %{public}s", of.vm->name,
                      localizedDescription(failure));
    co_return failure;
}

Task<void> VMSnapshotService::keep(Capture* of) {
    const auto write = [of] { SnapshotMetadata::of(*of->snapshot).write(of->files().metadata()); };
    co_await inBackground(of->vm, write);
    with_.modelContext.insert(of->snapshot);
    try {
        with_.modelContext.save();
    } catch (...) {
        with_.modelContext.remove(of->snapshot);
        throw;
    }
    const auto* text = of->chain != nullptr && of->isLive
                           ? "Took running snapshot '%{public}s' of VM %{public}s (RAM: %{bool}d)"
                           : "Took snapshot '%{public}s' of VM %{public}s (RAM: %{bool}d)";
    logger_.info(text, of->snapshot->name, of->vm->name, of->snapshot->includesRAMState);
}

/// Leaves neither row nor directory, and the chain as it was. Once QEMU writes to the new layer, that can't
/// be taken back: the layer then stays until the machine is down and `recover` merges it.
Task<void> VMSnapshotService::undo(Capture* of) {
    // Should anything be left behind, the next operation looks for it.
    recovered_.erase(of->vm->id);
    const auto work = [of] {
        const auto id = of->snapshot->id;
        if (of->isSwitched) {
            // Described, it would pass for a snapshot that had been taken.
            std::filesystem::remove(of->files().metadata());
            return;
        }
        if (of->isLayerFrozen) of->chain->uncapture(of->bundle, id, of->snapshot->parentSnapshotID);
        if (of->chain != nullptr)
            of->chain->removeDirectoryWithoutDisk(of->bundle, id);
        else
            of->files().remove();
    };
    try {
        co_await inBackground(of->vm, work);
    } catch (const std::exception& error) {
        logger_.error("Could not undo a failed snapshot of %{public}s: %{public}s", of->vm->name,
                      error.what());
    }
}

}  // namespace dorvane

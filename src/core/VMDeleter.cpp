// SPDX-License-Identifier: Apache-2.0
#include "core/VMDeleter.h"

#include "core/DorvaneError.h"
#include "core/VMRunControl.h"
#include "core/VMServiceLogger.h"
#include "core/VMStatusWatcher.h"

namespace dorvane {
namespace {

void requireAlive(const VMRecord& vm) {
    if (vm.isDeleted) throw DorvaneError::vmNotFound(vm.id);
}

/// An emulator that a crash left running lets go of the files. What else is broken needn't be mended to go.
Task<void> recoverTolerantly(VMBundleRecovering* recovery, VMRecordPointer vm) {
    if (recovery == nullptr) co_return;
    std::exception_ptr failure;
    try {
        co_await recovery->recover(vm);
    } catch (const DorvaneError& error) {
        if (error.which() == DorvaneError::Case::vmBusy) throw;
        failure = std::current_exception();
    } catch (...) {
        failure = std::current_exception();
    }
    if (isCancellation(failure)) std::rethrow_exception(failure);
    if (failure)
        vmServiceLogger.error("Deleting %{public}s although its files could not be put in order: %{public}s",
                              vm->name, localizedDescription(failure));
}

}  // namespace

Task<void> VMDeleter::remove(VMRecordPointer vm, bool permanently) {
    requireAlive(*vm);
    // One that is under way already holds the gate.
    co_await recoverTolerantly(with_.recovery, vm);
    requireAlive(*vm);
    with_.gate.requireFree(vm->id, vm->name);
    watcher_.forget(vm->id);
    const bool wasDown = vm->isShutDownForEditing();
    co_await powerOff(vm);
    if (!wasDown) co_await recoverTolerantly(with_.recovery, vm);
    requireAlive(*vm);
    std::optional<Path> trashed;
    {
        const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
        trashed = co_await dispose(vm, permanently);
        // The directory is gone: the record has to follow even when the caller has lost interest.
        co_await ignoreCancellation();
        access_.close(vm->id);
        if (with_.provisioningStore != nullptr) with_.provisioningStore->discard(vm->id, vm->bundle());
        library_.remove(vm);
        library_.save();
    }
    library_.syncQuietly();
    if (permanently)
        vmServiceLogger.info("Deleted VM: %s (erased permanently)", vm->name);
    else
        vmServiceLogger.info("Deleted VM: %s (moved to Trash: %s)", vm->name,
                             trashed.value_or("nothing was left").string());
}

Task<void> VMDeleter::powerOff(VMRecordPointer vm) {
    const bool isRunning = !vm->isShutDownForEditing();
    // The engine may still have what the record shows as failed or stopped.
    const bool isKnown = with_.engine.status(vm->id).value_or(VMStatus::stopped) != VMStatus::stopped;
    if (!isRunning && !isKnown && !runControl_.isStarting(vm->id)) co_return;
    std::exception_ptr failure;
    try {
        // The run control stops only from a running status.
        if (isRunning)
            co_await runControl_.stop(vm, true);
        else
            co_await with_.engine.stop(vm->id, true);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) co_return;
    watcher_.watch(vm->id);
    std::rethrow_exception(failure);
}

Task<std::optional<Path>> VMDeleter::dispose(VMRecordPointer vm, bool permanently) {
    const auto token = access_.begin(*vm);
    const Path directory = vm->vmPath;
    const auto work = [this, &directory, permanently]() -> std::optional<Path> {
        std::error_code ignored;
        if (!std::filesystem::exists(directory, ignored)) return std::nullopt;
        return with_.directoryDisposer.dispose(directory, permanently);
    };
    try {
        co_return co_await with_.runtime.background.run(work);
    } catch (...) {
        rethrowAs(DorvaneError::Case::vmDeleteFailed, std::current_exception());
    }
}

}  // namespace dorvane

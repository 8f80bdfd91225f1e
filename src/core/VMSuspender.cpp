// SPDX-License-Identifier: Apache-2.0
#include "core/VMSuspender.h"

#include "base/Localized.h"
#include "core/ConfigHash.h"
#include "core/VMBundleReading.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

using Case = DorvaneError::Case;

}  // namespace

void VMSuspender::requireSuspendable(const VMRecord& vm) const {
    if (vm.hasPendingInstallerImage())
        throw DorvaneError(Case::invalidConfiguration,
                           localized("Finish the installation before suspending this VM."));
    if (vm.status != VMStatus::running && vm.status != VMStatus::paused)
        throw DorvaneError(Case::vmNotRunning, vm.name);
    if (!with_.engine.canSaveStateNow(vm.osType))
        throw DorvaneError(Case::invalidConfiguration,
                           localized("VMs can only be suspended while this Mac is unlocked."));
}

Task<DorvaneVMConfig> VMSuspender::readSuspendableConfiguration(VMBundle bundle) const {
    const auto read = [bundle] {
        requireComplete(bundle, Case::vmStartupFailed);
        return readConfiguration(bundle);
    };
    auto config = co_await with_.runtime.background.run(read);
    if (config.isGraphicsAccelerated())
        throw DorvaneError(
            Case::invalidConfiguration,
            localized("VMs with graphics acceleration can't be suspended. Shut the VM down instead."));
    co_return config;
}

Task<void> VMSuspender::suspend(VMRecordPointer vm) {
    const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
    requireSuspendable(*vm);
    const auto token = access_.begin(*vm);
    const auto config = co_await readSuspendableConfiguration(vm->bundle());
    // The guest may have powered itself off meanwhile.
    requireSuspendable(*vm);
    const bool wasPausedHere = vm->status == VMStatus::running;
    if (wasPausedHere) co_await with_.engine.pause(vm->id);
    std::exception_ptr failure;
    try {
        co_await saveAndPowerOff(vm->id, vm->bundle(), config);
    } catch (...) {
        failure = std::current_exception();
    }
    co_await ignoreCancellation();
    if (failure) {
        co_await abandon(vm, wasPausedHere);
        std::rethrow_exception(failure);
    }
    vm->status = VMStatus::stopped;
    vm->updatedAt = with_.runtime.clock.date();
    access_.close(vm->id);
    library_.commit();
    vmServiceLogger.info("Suspended VM to disk: %s", vm->name);
}

Task<void> VMSuspender::saveAndPowerOff(UUID vmID, VMBundle bundle, DorvaneVMConfig config) {
    co_await with_.engine.saveState(vmID, bundle.savedState());
    const auto writeHash = [&bundle, &config] {
        writeFileAtomically(bundle.savedStateHash(), configHash(config));
    };
    co_await with_.runtime.background.run(writeHash);
    co_await with_.engine.stop(vmID, true);
}

/// Brings a machine back that couldn't be suspended.
Task<void> VMSuspender::abandon(VMRecordPointer vm, bool wasPausedHere) {
    const auto discard = [bundle = vm->bundle()] { bundle.discardSavedState(); };
    co_await with_.runtime.background.run(discard);
    if (wasPausedHere) {
        try {
            co_await with_.engine.resume(vm->id);
        } catch (const std::exception& error) {
            vmServiceLogger.error("Could not resume %{public}s after a failed suspend: %{public}s", vm->name,
                                  error.what());
        }
    }
    vm->status = VMStatus::running;
    library_.commitQuietly();
}

Task<void> VMSuspender::discardSuspendedState(VMRecordPointer vm) {
    const auto token = access_.begin(*vm);
    const auto discard = [bundle = vm->bundle()] { bundle.discardSavedState(); };
    co_await with_.runtime.background.run(discard);
    vmServiceLogger.info("Discarded suspended state of %{public}s at the user's request", vm->name);
}

}  // namespace dorvane

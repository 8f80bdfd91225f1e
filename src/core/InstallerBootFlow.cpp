// SPDX-License-Identifier: Apache-2.0
#include "core/InstallerBootFlow.h"

#include "base/Localized.h"
#include "core/DorvaneError.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

bool showsSystem(const LinuxBootEvidenceInspecting* evidence, const VMBundle& bundle) {
    return evidence != nullptr && evidence->diskShowsBootableSystem(bundle.rawDisk());
}

}  // namespace

void InstallerBootFlow::complete(VMRecord& vm) {
    if (vm.osType == VMOSType::macOS)
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("Only VMs installed from an ISO can finish the installer boot flow."));
    if (vm.hasPendingInstallerImage() && !vm.isShutDownForEditing())
        throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                           localized("Shut down the VM before removing the installer image."));
    vm.pendingInstallerImagePath.reset();
    vm.updatedAt = now();
    library_.commit();
    vmServiceLogger.info("Completed installation for VM: %s", vm.name);
}

Task<void> InstallerBootFlow::dropImageIfSystemIsBootable(VMRecordPointer vm) {
    if (vm->osType != VMOSType::linux || !vm->hasPendingInstallerImage()) co_return;
    const bool isBootable = co_await inspect(vm->bundle());
    if (!isBootable) co_return;
    vm->pendingInstallerImagePath.reset();
    library_.commit();
    vmServiceLogger.info("Found an installed system on %s; starting without the installer image", vm->name);
}

bool InstallerBootFlow::shouldAttempt(const VMRecord& vm) {
    return vm.osType == VMOSType::linux && vm.hasPendingInstallerImage() && vm.isShutDownForEditing();
}

bool InstallerBootFlow::showsInstalledSystem(const VMBundle& bundle) const {
    return showsSystem(with_.bootEvidence, bundle);
}

Task<bool> InstallerBootFlow::inspect(VMBundle bundle) const {
    const auto look = [evidence = with_.bootEvidence, bundle] { return showsSystem(evidence, bundle); };
    co_return co_await with_.runtime.background.run(look);
}

Task<bool> InstallerBootFlow::autoComplete(VMRecordPointer vm) {
    if (!shouldAttempt(*vm)) co_return false;
    const bool isInstalled = co_await inspect(vm->bundle());
    co_return !vm->isDeleted && autoComplete(*vm, isInstalled);
}

bool InstallerBootFlow::autoComplete(VMRecord& vm, bool showsInstalledSystem) {
    if (!showsInstalledSystem || !shouldAttempt(vm)) return false;
    vm.pendingInstallerImagePath.reset();
    vm.updatedAt = now();
    vmServiceLogger.info("Automatically completed Linux installation for VM: %s", vm.name);
    return true;
}

}  // namespace dorvane

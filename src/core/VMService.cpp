// SPDX-License-Identifier: Apache-2.0
#include "core/VMService.h"

#include "base/Text.h"
#include "core/DorvaneError.h"
#include "core/VMCloner.h"
#include "core/VMCreator.h"
#include "core/VMDeleter.h"
#include "core/VMInspector.h"
#include "core/VMLibraryRefresher.h"
#include "core/VMReconfigurer.h"
#include "core/VMRunControl.h"
#include "core/VMServiceLogger.h"
#include "core/VMSuspender.h"

namespace dorvane {
/// In the order in which they need each other.
struct VMService::Parts {
    explicit Parts(VMServiceCollaborators collaborators) : with(std::move(collaborators)) {}

    void rename(VMRecord& vm, const std::string& wanted);

    const VMServiceCollaborators with;
    VMLibrary library{with.modelContext};
    VMAccess access{with.bookmarks};
    InstallerBootFlow flow{with, library};
    std::shared_ptr<VMStatusWatcher> watcher = std::make_shared<VMStatusWatcher>(with, library, access, flow);
    VMRunControl runControl{with, library, access, flow, *watcher};
    VMSuspender suspender{with, library, access};
    VMLibraryRefresher refresher{with, library, access, flow};
    VMCreator creator{with, library};
    VMCloner cloner{with, library, access, runControl};
    VMReconfigurer reconfigurer{with, library, access, runControl};
    VMDeleter deleter{with, library, access, runControl, *watcher};
    VMInspector inspector{with};
};

/// The directory keeps its name.
void VMService::Parts::rename(VMRecord& vm, const std::string& wanted) {
    const std::string name(trimmed(wanted));
    VMNameRules::validate(name);
    library.sync();
    if (library.isNameTaken(name, vm)) throw DorvaneError(DorvaneError::Case::vmNameCollision, name);
    const auto before = std::exchange(vm.name, name);
    vm.updatedAt = with.runtime.clock.date();
    library.commit();
    vmServiceLogger.info("Renamed VM %{public}s to %{public}s", before, name);
}

VMService::VMService(VMServiceCollaborators collaborators)
    : parts_(std::make_unique<Parts>(std::move(collaborators))) {
    listSubscription_ = parts_->library.published.connect([this] { vmsChanged(); });
    phaseSubscription_ =
        parts_->creator.macOSInstallPhaseChanged.connect([this] { macOSInstallPhaseChanged(); });
}

VMService::~VMService() = default;

const std::vector<VMRecordPointer>& VMService::vms() const { return parts_->library.vms(); }

void VMService::syncVMsFromPersistence() { parts_->library.sync(); }

Task<void> VMService::refreshVMList() { return parts_->refresher.refresh(); }

Task<VMRecordPointer> VMService::createVM(std::string name, VMOSType os, VMConfiguration configuration) {
    return parts_->creator.create(std::move(name), os, std::move(configuration));
}

Task<VMRecordPointer> VMService::cloneVM(VMRecordPointer vm, std::string newName) {
    return parts_->cloner.clone(std::move(vm), std::move(newName));
}

Task<void> VMService::renameVM(VMRecordPointer vm, std::string name) {
    parts_->rename(*vm, name);
    co_return;
}

Task<void> VMService::updateVMConfiguration(VMRecordPointer vm, VMConfiguration configuration) {
    return parts_->reconfigurer.update(std::move(vm), std::move(configuration));
}

Task<void> VMService::deleteVM(VMRecordPointer vm, bool permanently) {
    return parts_->deleter.remove(std::move(vm), permanently);
}

Task<void> VMService::completeInstallation(VMRecordPointer vm) {
    parts_->flow.complete(*vm);
    co_return;
}

Task<void> VMService::startVM(VMRecordPointer vm) { return parts_->runControl.start(std::move(vm)); }

Task<void> VMService::stopVM(VMRecordPointer vm, bool force) {
    return parts_->runControl.stop(std::move(vm), force);
}

Task<void> VMService::restartVM(VMRecordPointer vm) { return parts_->runControl.restart(std::move(vm)); }

Task<void> VMService::pauseVM(VMRecordPointer vm) { return parts_->runControl.pause(std::move(vm)); }

Task<void> VMService::resumeVM(VMRecordPointer vm) { return parts_->runControl.resume(std::move(vm)); }

Task<void> VMService::suspendVM(VMRecordPointer vm) { return parts_->suspender.suspend(std::move(vm)); }

Task<void> VMService::discardSuspendedState(VMRecordPointer vm) {
    return parts_->suspender.discardSuspendedState(std::move(vm));
}

Task<void> VMService::refreshVMState(VMRecordPointer vm) {
    parts_->runControl.refreshState(*vm);
    co_return;
}

bool VMService::isStarting(const UUID& vmID) const { return parts_->runControl.isStarting(vmID); }

std::optional<std::string> VMService::lastFailureReason(const VMRecord& vm) const {
    return parts_->inspector.lastFailureReason(vm);
}

bool VMService::lastStopWasForced(const VMRecord& vm) const {
    return parts_->inspector.lastStopWasForced(vm);
}

Task<std::optional<VMDisplayInfo>> VMService::getVMDisplayInfo(VMRecordPointer vm) {
    return parts_->inspector.displayInfo(std::move(vm));
}

Task<std::optional<int>> VMService::sshForwardedPort(VMRecordPointer vm) {
    return parts_->inspector.sshForwardedPort(std::move(vm));
}

Task<std::optional<Bytes>> VMService::captureHostFramebuffer(VMRecordPointer vm) {
    return parts_->inspector.captureFramebuffer(std::move(vm));
}

Task<std::string> VMService::getVMLogs(VMRecordPointer vm) { return parts_->inspector.logs(std::move(vm)); }

const std::optional<MacOSInstallPhase>& VMService::macOSInstallPhase() const {
    return parts_->creator.macOSInstallPhase();
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "core/VMCloner.h"

#include "base/Localized.h"
#include "core/BackupExclusion.h"
#include "core/DorvaneError.h"
#include "core/VMConfiguration.h"
#include "core/VMDirectoryRemoval.h"
#include "core/VMIdentityFactory.h"
#include "core/VMRunControl.h"
#include "core/VMServiceLogger.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

DorvaneError cloneFailure(std::string reason) {
    return DorvaneError(DorvaneError::Case::vmCloneFailed, std::move(reason));
}

/// A hidden name that the sweep of interrupted work knows: a half copy is never taken for a machine.
Path stagingPath(const Path& target) {
    return target.parent_path() /
           ("." + target.filename().string() + ".importing-" + UUID::random().shortText());
}

}  // namespace

Task<VMRecordPointer> VMCloner::clone(VMRecordPointer vm, std::string newName) {
    VMNameRules::validate(newName);
    if (vm->status != VMStatus::stopped || !runControl_.isShutDown(*vm))
        throw cloneFailure(localized("Shut down the VM before cloning it."));
    library_.sync();
    const Path target = (with_.settings.storagePath() / newName).lexically_normal();
    const VMLibrary::Reservation reservation(library_, newName, target.string());
    if (isThere(target))
        throw cloneFailure(localized("A directory named '%@' already exists in storage.", newName));
    if (with_.recovery != nullptr) co_await with_.recovery->recover(vm);
    if (!runControl_.isShutDown(*vm)) throw cloneFailure(localized("Shut down the VM before cloning it."));
    const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
    const auto token = access_.begin(*vm);

    const auto source = vm->bundle();
    const auto copy = [&] { return copyBundle(source, stagingPath(target), target); };
    const auto config = co_await with_.runtime.background.run(copy);
    const auto cloned = record(*vm, newName, target, config);
    std::exception_ptr failure;
    try {
        library_.add(cloned);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await ignoreCancellation();
        co_await removeDirectory(with_.runtime, target);
        std::rethrow_exception(failure);
    }
    vmServiceLogger.info("Cloned VM: %s to %s", vm->name, newName);
    co_return cloned;
}

/// On a background thread. Everything happens in the staging directory, which becomes the target at the end.
DorvaneVMConfig VMCloner::copyBundle(const VMBundle& source, const Path& staging, const Path& target) const {
    if (!source.isValid()) throw cloneFailure(localized("The source VM bundle is incomplete."));
    try {
        fs::create_directories(staging.parent_path());
        with_.fileManager.copyItem(source.directoryURL, staging);
        auto config = prepareCopy(VMBundle(staging));
        BackupExclusion::excludeFromBackup(with_.fileManager, staging);
        fs::rename(staging, target);
        return config;
    } catch (...) {
        std::error_code ignored;
        fs::remove_all(staging, ignored);
        throw cloneFailure(localizedDescription(std::current_exception()));
    }
}

/// Makes a machine of its own out of a plain copy.
DorvaneVMConfig VMCloner::prepareCopy(const VMBundle& copy) const {
    copy.discardSavedState();
    const bool hasSnapshots = isThere(copy.snapshotsDirectory());
    if (isThere(copy.qcow2Disk())) {
        if (with_.diskFlattening != nullptr)
            with_.diskFlattening->flattenLiveDisk(copy);
        else if (hasSnapshots)
            throw DorvaneError(DorvaneError::Case::invalidConfiguration,
                               localized("The disk image tool is missing from this build."));
    }
    fs::remove_all(copy.snapshotsDirectory());
    copy.removeEphemeralMarker();
    auto config = VMIdentityFactory::rotatedIdentity(DorvaneVMConfig::read(copy.configFile()), with_.host);
    config.write(copy.configFile());
    return config;
}

VMRecordPointer VMCloner::record(const VMRecord& source, const std::string& name, const Path& directory,
                                 const DorvaneVMConfig& config) const {
    auto vm = std::make_shared<VMRecord>();
    vm->name = name;
    vm->vmPath = directory.string();
    vm->createdAt = vm->updatedAt = with_.runtime.clock.date();
    vm->osType = config.os;
    vm->diskSizeBytes = static_cast<std::int64_t>(config.diskSizeBytes);
    vm->memoryMB = static_cast<std::int64_t>(config.memoryBytes >> 20);
    vm->cpuCount = config.cpuCount;
    vm->displayResolution = DisplayResolution{config.display.widthInPixels, config.display.heightInPixels};
    vm->osVersionLabel = source.osVersionLabel;
    vm->imageSource = source.imageSource;
    vm->tags = source.tags;
    vm->sharedFolders = source.sharedFolders;
    vm->pendingInstallerImagePath = source.pendingInstallerImagePath;
    vm->mountedImages = source.mountedImages;
    vm->usbStorageDevices = source.usbStorageDevices;
    vm->bookmarksByPath = source.bookmarksByPath;
    vm->sshUsername = source.sshUsername;
    vm->sshPrivateKeyPath = source.sshPrivateKeyPath;
    vm->sshPrivateKeyBookmark = source.sshPrivateKeyBookmark;
    return vm;
}

}  // namespace dorvane

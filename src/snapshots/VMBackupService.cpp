// SPDX-License-Identifier: Apache-2.0
#include "snapshots/VMBackupService.h"

#include "base/Localized.h"
#include "core/VMConfiguration.h"
#include "snapshots/SnapshotFailure.h"
#include "snapshots/VMBackupServiceUnpacking.h"
#include "snapshots/VMBackupServiceWork.h"

namespace dorvane {
namespace {

namespace fs = std::filesystem;

using Case = DorvaneError::Case;
using Phase = VMBackupProgress::Phase;

const Logger logger("VMBackupService");

void tell(const VMBackupProgressHandler& handler, Phase phase,
          std::optional<double> fraction = std::nullopt) {
    if (handler) handler({phase, fraction});
}

}  // namespace

/// Keeps a destination from a second restore while the first is under way.
class VMBackupService::Reservation {
  public:
    Reservation(std::set<std::string>& taken, std::string path) : taken_(taken), path_(std::move(path)) {
        taken_.insert(path_);
    }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;
    ~Reservation() { taken_.erase(path_); }

  private:
    std::set<std::string>& taken_;
    std::string path_;
};

/// One restore under way. What has been made by it is here, to be removed when it fails.
struct VMBackupService::Restore {
    Path archivePath;
    std::optional<std::string> restoredName;
    UUID id = UUID::random();
    std::string name = {};
    Path staging = {};
    Path destination = {};
    /// The bundle stands at the destination.
    bool hasMoved = false;
    ArchiveControl control = {};
    std::unique_ptr<const VMBackupArchive> archive = nullptr;
    VMRecordPointer vm = nullptr;
};

Task<void> VMBackupService::exportBackup(VMRecordPointer vm, Path destinationURL,
                                         VMBackupProgressHandler progress) {
    tell(progress, Phase::preparing);
    if (with_.recovery != nullptr) {
        const auto failure = co_await outcome(with_.recovery->recover(vm));
        if (failure) rethrowAsOwn(Case::vmBackupFailed, failure);
    }
    if (vm->status != VMStatus::stopped || (with_.isShutDown && !with_.isShutDown(*vm)))
        throw DorvaneError(Case::vmBackupFailed,
                           localized("VM '%@' must be stopped before creating a backup.", vm->name));
    std::error_code ignored;
    if (!fs::is_directory(vm->vmPath, ignored))
        throw DorvaneError(Case::vmBackupFailed, localized("VM directory does not exist at %@.", vm->vmPath));
    const VMOperationGate::Hold hold(with_.gate, vm->id, vm->name);
    const auto label = localized("Backing up %@", vm->name);
    auto packing = pack(vm, std::move(destinationURL), std::move(progress));
    std::exception_ptr failure;
    try {
        co_await with_.longOperations.track(label, std::move(packing));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) rethrowAs(Case::vmBackupFailed, failure);
    logger.info("Backed up VM: %s", vm->name);
}

Task<void> VMBackupService::pack(VMRecordPointer vm, Path destination, VMBackupProgressHandler progress) {
    VMBackupPackOrder order{
        vm->bundle(), std::move(destination), {}, VMBackupRecordSnapshot(*vm), with_.step};
    order.manifest.createdAt = with_.runtime.clock.date();
    order.manifest.appVersion = with_.appVersion;
    order.manifest.engineVersion = with_.engineVersion;
    order.manifest.originalName = vm->name;
    order.manifest.originalDirectoryName = order.bundle.name();
    order.manifest.originalVMPath = vm->vmPath;
    tell(progress, Phase::compressing, 0);
    ArchiveControl control;
    const VMBackupSampler sampler(with_.runtime, control, Phase::compressing, progress);
    const auto work = [&] { packBackup(order, control); };
    co_await runCancellable(with_.runtime, control, work);
}

Task<VMRecordPointer> VMBackupService::restoreBackup(Path archive, std::optional<std::string> restoredName,
                                                     VMBackupProgressHandler progress) {
    tell(progress, Phase::preparing);
    const auto label = localized("Restoring a backup");
    auto restoring = restore(std::move(archive), std::move(restoredName), std::move(progress));
    auto vm = co_await with_.longOperations.track(label, std::move(restoring));
    if (with_.libraryChanged) with_.libraryChanged();
    co_return vm;
}

Task<VMRecordPointer> VMBackupService::restore(Path archive, std::optional<std::string> restoredName,
                                               VMBackupProgressHandler progress) {
    Restore restore{std::move(archive), std::move(restoredName)};
    std::exception_ptr failure;
    try {
        co_await attempt(restore, std::move(progress));
    } catch (...) {
        failure = std::current_exception();
    }
    co_await ignoreCancellation();
    const auto cleanUp = [&] {
        std::error_code ignored;
        if (!restore.staging.empty()) fs::remove_all(restore.staging, ignored);
        if (failure && restore.hasMoved) fs::remove_all(restore.destination, ignored);
    };
    co_await with_.runtime.background.run(cleanUp);
    if (failure) rethrowAsOwn(Case::vmRestoreFailed, failure);
    logger.info("Restored VM: %s", restore.vm->name);
    co_return restore.vm;
}

Task<void> VMBackupService::attempt(Restore& restore, VMBackupProgressHandler progress) {
    const auto open = [&] { restore.archive = std::make_unique<const VMBackupArchive>(restore.archivePath); };
    co_await runCancellable(with_.runtime, restore.control, open);
    choosePlace(restore);
    const Reservation reservation(destinations_, restore.destination.string());
    const VMOperationGate::Hold hold(with_.gate, restore.id, restore.name);

    const VMBackupInstallOrder order{restore.staging, restore.destination,   with_.fileManager,
                                     with_.host,      with_.translateBundle, with_.step,
                                     with_.chainTool};
    tell(progress, Phase::extracting, 0);
    const auto unpack = [&] { unpackBackup(*restore.archive, order, restore.control); };
    {
        const VMBackupSampler sampler(with_.runtime, restore.control, Phase::extracting, progress);
        co_await runCancellable(with_.runtime, restore.control, unpack);
    }
    tell(progress, Phase::installing);
    const auto install = [&] {
        auto config = installBackup(*restore.archive, order, restore.control);
        restore.hasMoved = true;
        return config;
    };
    const auto config = co_await runCancellable(with_.runtime, restore.control, install);

    restore.vm = restore.archive->record().makeRestoredVM(restore.name, restore.destination);
    restore.vm->id = restore.id;
    restore.vm->createdAt = restore.vm->updatedAt = with_.runtime.clock.date();
    // The bundle is the truth about the hardware.
    restore.vm->osType = config.os;
    restore.vm->cpuCount = config.cpuCount;
    restore.vm->memoryMB = static_cast<std::int64_t>(config.memoryBytes >> 20);
    restore.vm->diskSizeBytes = static_cast<std::int64_t>(config.diskSizeBytes);
    keep(restore.vm);
}

void VMBackupService::choosePlace(Restore& restore) {
    restore.name = restore.restoredName.value_or(restore.archive->record().name);
    VMNameRules::validate(restore.name);
    if (with_.modelContext == nullptr)
        throw DorvaneError(Case::vmRestoreFailed, localized("No model context available."));
    const auto storage = with_.settings.storagePath();
    const auto destination = (storage / restore.name).lexically_normal();
    if (isThere(destination) || destinations_.contains(destination.string()))
        throw DorvaneError(Case::vmRestoreFailed,
                           localized("The restore destination already exists at %@.", destination.string()));
    for (const auto& vm : with_.modelContext->fetchRecords())
        if (vm->name == restore.name) throw DorvaneError(Case::vmNameCollision, restore.name);
    restore.destination = destination;
    restore.staging = storage / (restoreStagingPrefix + UUID::random().text());
}

void VMBackupService::keep(const VMRecordPointer& vm) {
    if (with_.step) with_.step("save");
    with_.modelContext->insert(vm);
    try {
        with_.modelContext->save();
    } catch (...) {
        with_.modelContext->remove(vm);
        throw;
    }
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Portable backups of machines.
#pragma once

#include <set>

#include "core/LongOperationRegistry.h"
#include "core/ModelContext.h"
#include "core/SettingsService.h"
#include "core/VMBundleRecovering.h"
#include "core/VMOperationGate.h"
#include "platform/FileManager.h"
#include "qemu/QCOW2ChainToolProtocol.h"
#include "runtime/Runtime.h"
#include "snapshots/VMBackupServicePacking.h"
#include "snapshots/VMBackupServiceProtocol.h"

namespace dorvane {

/// All of it outlives the service.
struct VMBackupServiceCollaborators {
    const Runtime& runtime;
    SettingsService& settings;
    VMOperationGate& gate;
    LongOperationRegistry& longOperations;
    FileManager& fileManager;
    const HostSystem& host;
    /// Null: nothing can be restored.
    ModelContext* modelContext = nullptr;
    /// Sees to a machine's files before they are packed; null: nobody need.
    VMBundleRecovering* recovery = nullptr;
    /// Null: no machine with snapshots in layers can be restored.
    const QCOW2ChainToolProtocol* chainTool = nullptr;
    /// As they stand in manifests.
    std::string appVersion = {};
    std::string engineVersion = {};
    /// Whether a machine that its record calls stopped isn't being started either; empty when the record is
    /// enough.
    std::function<bool(const VMRecord&)> isShutDown = {};
    /// Called when a new record has been saved.
    std::function<void()> libraryChanged = {};
    /// Brings an unpacked bundle of an older layout up to date, on a background thread.
    std::function<void(const VMBundle&)> translateBundle = {};
    /// Told of each step on a background thread; of "save" on the main thread.
    VMBackupStepObserver step = {};
};

/// Main thread only.
class VMBackupService : public VMBackupServiceProtocol {
  public:
    /// In the storage folder while a restore is under way, before a new UUID; what a crash leaves is swept
    /// with the next refresh of the library.
    static constexpr auto restoreStagingPrefix = "Dorvane-Restore-";

    explicit VMBackupService(VMBackupServiceCollaborators with) : with_(std::move(with)) {}

    Task<void> exportBackup(VMRecordPointer vm, Path destinationURL,
                            VMBackupProgressHandler progress) override;
    Task<VMRecordPointer> restoreBackup(Path archive, std::optional<std::string> restoredName,
                                        VMBackupProgressHandler progress) override;

  private:
    struct Restore;
    class Reservation;

    Task<void> pack(VMRecordPointer vm, Path destination, VMBackupProgressHandler progress);
    Task<VMRecordPointer> restore(Path archive, std::optional<std::string> restoredName,
                                  VMBackupProgressHandler progress);
    Task<void> attempt(Restore& restore, VMBackupProgressHandler progress);
    void choosePlace(Restore& restore);
    void keep(const VMRecordPointer& vm);

    VMBackupServiceCollaborators with_;
    /// Where restores under way are going to.
    std::set<std::string> destinations_;
};

}  // namespace dorvane

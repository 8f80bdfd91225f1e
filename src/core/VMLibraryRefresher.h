// SPDX-License-Identifier: Apache-2.0
// Keeps the records and the bundles on disk in step.
#pragma once

#include "core/InstallerBootFlow.h"
#include "core/VMAccess.h"

namespace dorvane {

/// Main thread only. Two overlapping refreshes are fine: each merge is whole, and merging twice changes
/// nothing.
class VMLibraryRefresher {
  public:
    /// A bundle as it was read.
    struct ReadBundle {
        VMBundle bundle;
        /// Absent when "config.json" can't be read or decoded.
        std::optional<DorvaneVMConfig> config;
        /// Only looked at when a record waits for it.
        bool showsInstalledSystem = false;
    };

    VMLibraryRefresher(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
                       InstallerBootFlow& flow)
        : with_(with), library_(library), access_(access), flow_(flow) {}

    /// Never removes a record. A folder or a bundle that can't be read stops nothing else, and neither does a
    /// store that can't be written: what changed is saved with the next change. Throws the store's error when
    /// it can't be read.
    Task<void> refresh();

    /// The folder for new machines, then the folder of each record, without duplicates.
    std::vector<Path> storagePathsToRefresh(const std::vector<VMRecordPointer>& records) const;
    /// Takes over what the bundles say about hardware and the engine about status, makes records for bundles
    /// without one, and saves when anything changed.
    void mergeVMs(const std::vector<ReadBundle>& bundles, const std::vector<VMRecordPointer>& records);

  private:
    struct ReadFolder;
    struct Scan;

    Task<Scan> scan(std::vector<Path> storagePaths);
    ReadFolder readFolder(const Path& storagePath, bool sweeps,
                          const std::set<std::string>& awaitingInstallation) const;
    bool mergeKnown(VMRecord& vm, const ReadBundle& read);
    bool adopt(const ReadBundle& read);
    void reconcileStatusOfUnreachableVMs(const std::vector<VMRecordPointer>& vms);
    Task<void> excludeReturned(const std::vector<VMRecordPointer>& unreachable);
    Date now() const { return with_.runtime.clock.date(); }

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    InstallerBootFlow& flow_;
};

}  // namespace dorvane

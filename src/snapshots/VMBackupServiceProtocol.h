// SPDX-License-Identifier: Apache-2.0
// Backups as the doors above see them: one machine, one portable ZIP archive.
#pragma once

#include "core/VMRecord.h"
#include "runtime/Task.h"
#include "snapshots/VMBackupProgress.h"

namespace dorvane {

/// Main thread only. Both operations may be cancelled at any time: nothing of theirs stays behind then, and a
/// cancellation error is thrown. Both hold the machine in VMOperationGate, and so throw vmBusy when another
/// operation does; a caller must not hold it already.
class VMBackupServiceProtocol {
  public:
    virtual ~VMBackupServiceProtocol() = default;

    /// Packs a stopped machine, snapshots included, into one archive and puts that in the place of whatever
    /// file stands at `destinationURL` (an absolute path). The old file stays untouched unless the new one is
    /// whole and on disk. Throws vmBackupFailed or vmBusy.
    virtual Task<void> exportBackup(VMRecordPointer vm, Path destinationURL,
                                    VMBackupProgressHandler progress) = 0;

    /// Makes a new machine with an identity of its own from an archive, in the storage folder, under
    /// `restoredName` or else the archived name, and returns its record, which the library keeps by then.
    /// Throws invalidConfiguration for a name that can't be a machine's, vmNameCollision for one that another
    /// machine has, diskSpaceInsufficient, or vmRestoreFailed.
    virtual Task<VMRecordPointer> restoreBackup(Path archive, std::optional<std::string> restoredName,
                                                VMBackupProgressHandler progress) = 0;
};

}  // namespace dorvane

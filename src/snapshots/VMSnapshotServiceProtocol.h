// SPDX-License-Identifier: Apache-2.0
// Snapshots as the doors above see them.
#pragma once

#include "core/ModelContext.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only. Every operation that changes the machine holds it in VMOperationGate, and so throws
/// vmBusy when another one does; a caller must not hold it already.
class VMSnapshotServiceProtocol {
  public:
    virtual ~VMSnapshotServiceProtocol() = default;

    /// Newest first.
    virtual Task<std::vector<VMSnapshotPointer>> listSnapshots(VMRecordPointer vm) = 0;
    /// Throws vmSnapshotFailed, or snapshotChainTooDeep at the limit.
    virtual Task<VMSnapshotPointer> takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                                 VMSnapshotKind kind) = 0;
    /// Needs a stopped machine; its disk as it was is given up. Throws vmSnapshotRestoreFailed.
    virtual Task<void> restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) = 0;
    /// Other snapshots keep their content. Throws vmSnapshotDeleteFailed.
    virtual Task<void> deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) = 0;
    /// Deletes all but the newest `keeping` automatic snapshots and returns how many are gone. A busy machine
    /// ends it early; one that can't be deleted is passed over.
    virtual Task<int> pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) = 0;
};

}  // namespace dorvane

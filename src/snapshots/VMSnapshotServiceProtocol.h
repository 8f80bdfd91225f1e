// SPDX-License-Identifier: Apache-2.0
// Snapshots as the doors above see them.
#pragma once

#include "core/ModelContext.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only. The caller holds the machine in VMOperationGate for every operation that changes it.
class VMSnapshotServiceProtocol {
  public:
    virtual ~VMSnapshotServiceProtocol() = default;

    virtual Task<std::vector<VMSnapshotPointer>> listSnapshots(VMRecordPointer vm) = 0;
    /// Throws vmSnapshotFailed, or snapshotChainTooDeep at the limit.
    virtual Task<VMSnapshotPointer> takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                                 VMSnapshotKind kind) = 0;
    virtual Task<void> restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) = 0;
    virtual Task<void> deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) = 0;
    /// Deletes the oldest automatic snapshots until at most `keeping` are left.
    virtual Task<void> pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) = 0;
};

}  // namespace dorvane

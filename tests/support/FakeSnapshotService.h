// SPDX-License-Identifier: Apache-2.0
// Snapshots in memory, with a limit to their number as a chain of disk layers has.
#pragma once

#include "core/DorvaneError.h"
#include "core/VMOperationGate.h"
#include "snapshots/VMSnapshotServiceProtocol.h"

namespace dorvane::test {

class FakeSnapshotService : public VMSnapshotServiceProtocol {
  public:
    /// Like the real one, it holds the machine while it changes something.
    explicit FakeSnapshotService(VMOperationGate& gate) : gate_(gate) {}

    VMSnapshotPointer add(const VMRecordPointer& vm, std::string name, VMSnapshotKind kind);
    std::vector<std::string> names() const;

    std::vector<VMSnapshotPointer> all;
    std::vector<VMSnapshotPointer> restored;
    std::size_t maximumDepth = 16;
    std::exception_ptr takeFailure, listFailure, deleteFailure;

    Task<std::vector<VMSnapshotPointer>> listSnapshots(VMRecordPointer vm) override;
    Task<VMSnapshotPointer> takeSnapshot(VMRecordPointer vm, std::string name, bool includeRAM,
                                         VMSnapshotKind kind) override;
    Task<void> restoreSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override;
    Task<void> deleteSnapshot(VMSnapshotPointer snapshot, VMRecordPointer vm) override;
    Task<int> pruneAutomaticSnapshots(VMRecordPointer vm, int keeping) override;

  private:
    static bool isAutomatic(const VMSnapshotPointer& snapshot);

    VMOperationGate& gate_;
    int nextSecond_ = 1767225600;
};

}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// Putting a snapshot's disk, firmware variables and memory in the place of a machine's own, all or nothing.
#pragma once

#include "snapshots/SnapshotChainStore.h"
#include "snapshots/SnapshotFiles.h"

namespace dorvane {

/// Blocking; for background work, on a machine that is down. What needs room on the disk is copied first;
/// then a journal is written, and from there on there are only renames. The swap of the system disk is the
/// moment at which the restore has happened: a crash before it leaves everything as it was, one behind it is
/// finished by `recover`.
class SnapshotRestoration {
  public:
    /// `chain` may be null, for snapshots that are clones.
    SnapshotRestoration(const SnapshotFileCopier& copier, const SnapshotChainStore* chain, VMBundle bundle,
                        VMOSType os)
        : copier_(copier), chain_(chain), bundle_(std::move(bundle)), os_(os) {}

    /// Returns whether the memory came back too. Throws vmSnapshotRestoreFailed or a lower error.
    bool restore(const VMSnapshot& snapshot) const;
    /// Finishes or takes back a restore that was cut short. Returns whether one has been finished.
    bool recover() const;
    /// Whether anything of one is there.
    static bool wasInterrupted(const VMBundle& bundle, VMOSType os);

  private:
    struct Journal;

    bool bringsMemoryBack(const VMSnapshot& snapshot, const SnapshotFiles& files) const;
    void stage(const SnapshotFiles& files, bool withMemory) const;
    void discardStaged() const;
    void swapDisk(const VMSnapshot& snapshot, const SnapshotFiles& files) const;
    void finish(const Journal& journal) const;

    const SnapshotFileCopier& copier_;
    const SnapshotChainStore* chain_;
    const VMBundle bundle_;
    const VMOSType os_;
};

}  // namespace dorvane

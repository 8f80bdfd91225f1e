// SPDX-License-Identifier: Apache-2.0
// Mends a chain of disk layers that a crash left in the middle of something.
#pragma once

#include "snapshots/SnapshotChainStore.h"

namespace dorvane {

/// What an interrupted operation of SnapshotChainStore leaves, and what is done about it:
///
/// | left behind | mended by |
/// |---|---|
/// | ".capturing", disk not moved yet | removing the new directory |
/// | ".capturing", disk moved, no complete overlay | moving the disk back |
/// | ".capturing", complete overlay | keeping the layer: a guest may have run on it already |
/// | "disk.qcow2.discarded" and no live disk | making it the live disk again |
/// | "disk.qcow2.discarded" whose layer went back | removing it, it was an empty overlay |
/// | "disk.qcow2.restoring" | removing it, the live disk is still the old one |
/// | a header in the form of its former place | rewriting it, when the layer that it names is here |
/// | "disk.qcow2.rebasing" | going back to the backing file that it names |
/// | ".merging" | finishing the deletion; what the child reads is right at every moment |
/// | "<id>.deleted", or a directory with neither a disk nor "meta.json" | removing it |
///
/// A layer without "meta.json" stays, since its content can't be had again: the snapshot service makes a row
/// for it or merges it. Nothing that might hold a guest's data is ever removed, and nothing outside the
/// bundle is touched.
class SnapshotChainRepair {
  public:
    explicit SnapshotChainRepair(SnapshotChainStore store) : store_(std::move(store)) {}

    /// Blocking; for background threads, under the machine's operation gate. The machine must be stopped,
    /// with no QEMU of an earlier session left on its disk. Doesn't throw: what can't be mended is logged.
    /// Returns whether the live disk stands on a sound chain and nothing interrupted is left.
    bool run(const VMBundle& bundle) const;

  private:
    void removeLeftovers(const VMBundle& bundle) const;
    void mendCapture(const VMBundle& bundle, const UUID& id) const;
    void mendDiscarded(const VMBundle& bundle) const;
    void mendRebase(const VMBundle& bundle, const SnapshotChainNode& node) const;
    void mendHeader(const VMBundle& bundle, const SnapshotChainNode& node) const;
    void finishMerge(const VMBundle& bundle, const UUID& id) const;

    SnapshotChainStore store_;
    Logger logger_{"SnapshotChainRepair"};
};

}  // namespace dorvane

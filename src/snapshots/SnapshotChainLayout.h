// SPDX-License-Identifier: Apache-2.0
// Where a layer stands, read with distrust: a chain comes from files that anybody may have put there.
#pragma once

#include <set>
#include <vector>

#include "qemu/QCOW2ChainToolProtocol.h"
#include "snapshots/SnapshotChainNode.h"

namespace dorvane {

/// Blocking; holds references only for one call's length. All throw vmSnapshotFailed with a sentence about
/// the layer, so that nothing is moved, merged or removed on the word of a header that leads elsewhere.
class SnapshotChainLayout {
  public:
    SnapshotChainLayout(const QCOW2ChainToolProtocol& tool, const VMBundle& bundle)
        : tool_(tool), bundle_(bundle) {}

    /// The node's disk must be a plain file in plain directories that keeps its data itself, and not in the
    /// middle of a rebase.
    void requireDisk(const SnapshotChainNode& node) const;
    /// What the node's header names, which must be absent or another snapshot in exactly the node's form.
    std::optional<UUID> parent(const SnapshotChainNode& node) const;
    /// All that the node stands on, the nearest first, without gap or circle.
    std::vector<UUID> ancestors(const SnapshotChainNode& node) const;
    /// Every qcow2 disk in the bundle, live or frozen, stands on the bundle's own files alone.
    void requireOwnLayers() const;

  private:
    using Layers = std::set<UUID>;
    /// The way ends at a layer of `known`, whose own way is known to be sound.
    std::vector<UUID> ancestors(const SnapshotChainNode& node, const Layers& known) const;

    const QCOW2ChainToolProtocol& tool_;
    const VMBundle& bundle_;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The layers of a QEMU machine's system disk.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "core/LiveDiskFlattening.h"
#include "core/VMEngineProtocol.h"
#include "qemu/QCOW2ChainToolProtocol.h"
#include "runtime/Logger.h"
#include "snapshots/SnapshotChainNode.h"

namespace dorvane {

/// The live disk is always "disk.qcow2"; a snapshot freezes it under "Snapshots/<id>" and puts an empty
/// overlay in its place. The tree stands in the layers' headers and nowhere else.
///
/// A value without state; copies are cheap. All operations block and are for background threads, one at a
/// time for a bundle. They throw vmSnapshotFailed (the tool's failures too) or FileError unless told
/// otherwise, and refuse a chain that has a gap, a circle, or a layer based on anything but the bundle's own
/// snapshots.
///
/// Whatever is interrupted leaves a state that SnapshotChainRepair mends: run it before an operation.
class SnapshotChainStore : public LiveDiskFlattening {
  public:
    using Node = SnapshotChainNode;
    using ParentRewrite = SnapshotParentRewrite;
    struct RunningCapture {
        std::optional<UUID> parentID;
        /// What QEMU has to write into the header of the layer that moved; absent without a parent.
        std::optional<ParentRewrite> parentRewrite;
        bool operator==(const RunningCapture&) const = default;
    };

    /// `depth` of a chain that is longer than any sound one.
    static constexpr int endlessDepth = 65;

    explicit SnapshotChainStore(std::shared_ptr<const QCOW2ChainToolProtocol> chainTool)
        : chainTool_(std::move(chainTool)) {}

    const QCOW2ChainToolProtocol& chainTool() const { return *chainTool_; }

    static std::optional<UUID> snapshotID(std::string_view backingPath) {
        return Node::snapshotID(backingPath);
    }

    /// Machine stopped. Returns the parent. The snapshot's directory may exist already, but not its disk. On
    /// failure the disk is back and the directory gone, or a log line says where the disk stands.
    std::optional<UUID> capture(const VMBundle& bundle, const UUID& snapshotID) const;
    /// Machine running: the file moves, and QEMU goes on with it until the caller has it attach the overlay.
    RunningCapture captureWhileRunning(const VMBundle& bundle, const UUID& snapshotID) const;
    /// Undoes `capture`; nothing must have been written to the overlay. A failure is logged and leaves a
    /// usable, if unwanted, layer. Does nothing when the layer isn't there.
    void uncapture(const VMBundle& bundle, const UUID& snapshotID, const std::optional<UUID>& parentID) const;
    /// Undoes `captureWhileRunning` when QEMU has not switched to the overlay.
    void uncaptureRunning(const VMBundle& bundle, const UUID& snapshotID,
                          const std::optional<UUID>& parentID) const;
    /// Takes away a snapshot's directory, unless a disk stands in it: then it stays and false comes back.
    /// What a failed `capture` leaves behind must be removed with this and never blindly.
    bool removeDirectoryWithoutDisk(const VMBundle& bundle, const UUID& snapshotID) const;

    /// Machine stopped. The live layer is given up for an empty overlay on the snapshot. Throws
    /// vmSnapshotRestoreFailed when the snapshot's disk is missing or half deleted. The live disk changes in
    /// one step at the very end.
    void restore(const VMBundle& bundle, const UUID& snapshotID) const;

    /// Takes a snapshot out of the chain; what stands on it keeps its content. Machine stopped, unless
    /// nothing stands on it. A failure while its only child is merged leaves the snapshot without trustworthy
    /// content: it can then only be deleted again.
    void deleteSnapshot(const VMBundle& bundle, const UUID& snapshotID) const;

    /// What stands directly on `node`; the live disk comes first.
    std::vector<Node> children(const VMBundle& bundle, const Node& node) const;
    /// The directories that carry a snapshot's name, in the order of their names.
    std::vector<UUID> snapshotIDsOnDisk(const VMBundle& bundle) const;
    /// Layers below the live disk, up to `endlessDepth`.
    int depth(const VMBundle& bundle) const;
    void flattenLiveDisk(const VMBundle& bundle) const override;

  private:
    friend class SnapshotChainRepair;

    void undoCapture(const VMBundle& bundle, const UUID& snapshotID, const std::optional<UUID>& parentID,
                     bool restoreHeader) const;
    void rebase(const VMBundle& bundle, const Node& child, const UUID& formerParentID,
                const std::optional<UUID>& newParentID) const;
    void undoRebase(const VMBundle& bundle, const Node& child) const;
    void requireNoInterruptedRebase(const VMBundle& bundle) const;
    void rewriteHeaderIfPossible(const Path& disk, const std::string& backingPath) const;
    void collapse(const VMBundle& bundle, const UUID& snapshotID, const Node& child,
                  const std::optional<UUID>& grandparentID) const;
    void commitInto(const VMBundle& bundle, const UUID& snapshotID, const Node& child) const;

    std::shared_ptr<const QCOW2ChainToolProtocol> chainTool_;
    Logger logger_{"SnapshotChainStore"};
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// A place in the tree of disk layers, and how one place names another.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/VMBundle.h"

namespace dorvane {

/// Either the live disk "disk.qcow2" or the frozen layer "Snapshots/<id>/disk.qcow2". Backing paths are
/// relative, so that a bundle can be moved without touching its layers. Upper-case identifiers only.
class SnapshotChainNode {
  public:
    static SnapshotChainNode live() { return SnapshotChainNode(std::nullopt); }
    static SnapshotChainNode snapshot(const UUID& id) { return SnapshotChainNode(id); }
    /// The snapshot that a backing path names, in whatever form: the second-to-last component.
    static std::optional<UUID> snapshotID(std::string_view backingPath);
    static Path directory(const VMBundle& bundle, const UUID& id) {
        return bundle.snapshotsDirectory() / id.text();
    }

    bool isLive() const { return !snapshotID_; }
    /// Absent for the live disk.
    const std::optional<UUID>& snapshotID() const { return snapshotID_; }

    /// How this node's file points at snapshot `id`.
    std::string backingPath(const UUID& id) const { return (isLive() ? "Snapshots/" : "../") + fileOf(id); }
    /// The text that points at snapshot `id` from the other kind of place: what a file holds that moved
    /// without its header having been rewritten.
    std::string misplacedBackingPath(const UUID& id) const {
        return (isLive() ? "../" : "Snapshots/") + fileOf(id);
    }
    Path diskURL(const VMBundle& bundle) const {
        return isLive() ? bundle.qcow2Disk() : directory(bundle, *snapshotID_) / "disk.qcow2";
    }

    bool operator==(const SnapshotChainNode&) const = default;

  private:
    explicit SnapshotChainNode(std::optional<UUID> id) : snapshotID_(id) {}
    static std::string fileOf(const UUID& id) { return id.text() + "/disk.qcow2"; }

    std::optional<UUID> snapshotID_;
};

}  // namespace dorvane

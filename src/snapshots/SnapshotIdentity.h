// SPDX-License-Identifier: Apache-2.0
// New identities for the snapshots of a copied bundle: two machines' snapshots are never the same ones.
#pragma once

#include <set>

#include "core/VMBundle.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane {

/// Those that have a directory in the bundle. Blocking.
std::set<UUID> snapshotIDs(const VMBundle& bundle);
/// Gives the directories of these snapshots, or of all, other UUIDs and has layers and descriptions follow.
/// Blocking, for a bundle that nobody uses meanwhile. `tool` may be null when no disk is layered. Throws
/// vmSnapshotFailed, FileError, or JSONError for an unreadable description.
void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool);
void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool,
                              const std::set<UUID>& ids);
/// Goes on where an error or a crash stopped it; until then the disk's layers don't find each other.
void finishIdentityRotation(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool);

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// New identities for the snapshots of a copied bundle: two machines' snapshots are never the same ones.
#pragma once

#include "core/VMBundle.h"
#include "qemu/QCOW2ChainToolProtocol.h"

namespace dorvane {

/// Gives each snapshot's directory another UUID and has layers and descriptions follow. Blocking, for a
/// bundle that nobody uses yet: an error leaves it half done. `tool` may be null when no disk is layered.
/// Throws vmSnapshotFailed, FileError, or JSONError for an unreadable description.
void rotateSnapshotIdentities(const VMBundle& bundle, const QCOW2ChainToolProtocol* tool);

}  // namespace dorvane

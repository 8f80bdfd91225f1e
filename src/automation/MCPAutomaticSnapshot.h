// SPDX-License-Identifier: Apache-2.0
// The snapshot that is taken before an agent starts a machine, so that its work can be rolled back.
#pragma once

#include "automation/MCPToolContext.h"

namespace dorvane {

struct MCPAutomaticSnapshot {
    /// "disabled", "skipped: …" or "created: …", for the agent.
    std::string summary;
    /// Null unless one was taken.
    VMSnapshotPointer snapshot;

    /// Main thread only. Never keeps a machine from starting: what goes wrong ends up in the summary.
    static Task<MCPAutomaticSnapshot> takeIfEnabled(const MCPToolContext& context, VMRecordPointer vm);
    /// Removes the snapshot of a start that failed; null does nothing, and a failure is only logged.
    static Task<void> discard(const MCPToolContext& context, VMRecordPointer vm, VMSnapshotPointer snapshot);
};

}  // namespace dorvane

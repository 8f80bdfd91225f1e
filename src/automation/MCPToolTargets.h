// SPDX-License-Identifier: Apache-2.0
// Finding what a tool call is about: a machine, a snapshot, a guest's address.
#pragma once

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"

namespace dorvane {

/// Main thread only. All throw MCPToolError with a message that names the next step; arguments outlive the
/// task.
struct MCPToolTargets {
    /// The machine that `vm` names, by UUID, by name, by name without regard to case, in a fresh list.
    static Task<VMRecordPointer> resolveVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    /// The snapshot that `snapshot` names, by UUID or exact name.
    static Task<VMSnapshotPointer> resolveSnapshot(const MCPToolContext& context,
                                                   const MCPToolArguments& arguments, VMRecordPointer vm);
    static Task<std::string> requireRunningIP(const MCPToolContext& context, VMRecordPointer vm);
    static Task<GuestSSHEndpoint> requireSSHEndpoint(const MCPToolContext& context, VMRecordPointer vm);
};

}  // namespace dorvane

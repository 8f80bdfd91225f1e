// SPDX-License-Identifier: Apache-2.0
// The tools around snapshots.
#pragma once

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"

namespace dorvane {

/// Main thread only. Each returns the value of a successful call and throws otherwise; arguments outlive the
/// task.
struct MCPSnapshotTools {
    static Task<JSON> listSnapshots(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> takeSnapshot(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> restoreSnapshot(const MCPToolContext& context, const MCPToolArguments& arguments);
};

}  // namespace dorvane

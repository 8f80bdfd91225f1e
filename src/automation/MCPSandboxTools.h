// SPDX-License-Identifier: Apache-2.0
// The tools that create and delete machines; the user has to turn them on.
#pragma once

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"

namespace dorvane {

/// Main thread only. Each returns the value of a successful call and throws otherwise; arguments outlive the
/// task.
struct MCPSandboxTools {
    static Task<JSON> createVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> cloneVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> deleteVM(const MCPToolContext& context, const MCPToolArguments& arguments);
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The tools that work inside a running guest.
#pragma once

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"
#include "automation/MCPToolResult.h"

namespace dorvane {

/// Main thread only. Both throw what a failed call comes to; arguments outlive the task.
struct MCPGuestTools {
    static Task<JSON> execShell(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<MCPToolResult> screenshot(const MCPToolContext& context, const MCPToolArguments& arguments);

    /// What to do about an ssh that failed (exit code 255) to reach a Windows guest; absent for any other
    /// exit code.
    static std::optional<std::string> windowsSSHHint(int exitCode, const std::string& standardError);
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The tools that list machines and run them.
#pragma once

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"

namespace dorvane {

/// Main thread only. Each returns the value of a successful call and throws otherwise; arguments outlive the
/// task.
struct MCPMachineTools {
    static Task<JSON> listVMs(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> startVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> stopVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> restartVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> suspendVM(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> getVMStatus(const MCPToolContext& context, const MCPToolArguments& arguments);
    static Task<JSON> getVMIP(const MCPToolContext& context, const MCPToolArguments& arguments);
};

}  // namespace dorvane

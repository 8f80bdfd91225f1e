// SPDX-License-Identifier: Apache-2.0
// Which operation stands behind a tool's name.
#pragma once

#include <string_view>

#include "automation/MCPToolArguments.h"
#include "automation/MCPToolContext.h"
#include "automation/MCPToolResult.h"

namespace dorvane {

/// Throws what a failed call comes to; context and arguments outlive the task.
using MCPToolOperation = Task<MCPToolResult> (*)(const MCPToolContext&, const MCPToolArguments&);

/// Null for an unknown name. Names are compared exactly.
MCPToolOperation findToolOperation(std::string_view name);

}  // namespace dorvane

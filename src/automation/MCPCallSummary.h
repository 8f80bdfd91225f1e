// SPDX-License-Identifier: Apache-2.0
// What a tool call was about, in the words that its activity log entry shows.
#pragma once

#include <string>
#include <string_view>

#include "automation/MCPToolArguments.h"

namespace dorvane {

/// Empty for most tools, and where the argument is missing or of another type.
std::string mcpCallSummary(std::string_view tool, const MCPToolArguments& arguments);

}  // namespace dorvane

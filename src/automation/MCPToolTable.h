// SPDX-License-Identifier: Apache-2.0
// What an MCP client is told about the tools.
#pragma once

#include <string>

#include "base/JSON.h"

namespace dorvane {

/// Built once, on first use; safe on any thread.
struct MCPToolTable {
    /// The tools that are always offered, in the order of the list.
    static const JSON& toolDefinitions();
    /// Those that follow when the user lets agents create and delete machines.
    static const JSON& destructiveToolDefinitions();
    /// The result of `tools/list` as compact JSON text: asked for often, and always one of these two.
    static const std::string& listText(bool includesDestructive);
    /// The text that `initialize` gives to the model behind a client.
    static const std::string& instructions();
};

}  // namespace dorvane

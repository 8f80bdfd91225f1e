// SPDX-License-Identifier: Apache-2.0
// What a user pastes into an MCP client.
#pragma once

#include <string>

namespace dorvane {

struct MCPClientSetupSnippets {
    /// The `mcpServers` entry for an endpoint URL that has the token in its path.
    static std::string jsonConfigSnippet(const std::string& endpoint);
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPClientSetupSnippets.h"

#include "base/JSON.h"

namespace dorvane {

std::string MCPClientSetupSnippets::jsonConfigSnippet(const std::string& endpoint) {
    JSON server;
    server["type"] = "http";
    server["url"] = endpoint;
    JSON snippet;
    snippet["mcpServers"]["dorvane"] = std::move(server);
    return prettyJSON(snippet);
}

}  // namespace dorvane

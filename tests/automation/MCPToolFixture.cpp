// SPDX-License-Identifier: Apache-2.0
#include "automation/MCPToolFixture.h"

namespace dorvane::test {

MCPToolFixture::MCPToolFixture() { makeHandler(true); }

MCPToolFixture::~MCPToolFixture() = default;

void MCPToolFixture::makeHandler(bool hasEveryService) {
    MCPToolContext::Services services{vmService, nullptr, nullptr, nullptr, settings};
    if (hasEveryService) {
        services.snapshotService = &snapshots;
        services.guestChannelRouter = &router;
        services.sandboxService = &sandboxes;
    }
    handler = std::make_shared<MCPRequestHandler>(host.runtime(), services, &activity, "1.2.3",
                                                  [this] { return token; });
}

void MCPToolFixture::allowSandboxes() { defaults.set(defaultsKey::mcpDestructiveToolsEnabled, true); }

MCPToolResult MCPToolFixture::call(const std::string& tool, const char* arguments) {
    return host.run(handler->callTool(tool, parseJSON(arguments)));
}

std::string MCPToolFixture::failure(const std::string& tool, const char* arguments) {
    const auto result = call(tool, arguments);
    EXPECT_TRUE(result.isError) << tool << arguments << ": " << result.firstText();
    return result.firstText();
}

JSON MCPToolFixture::value(const std::string& tool, const char* arguments) {
    const auto result = call(tool, arguments);
    EXPECT_FALSE(result.isError) << tool << arguments << ": " << result.firstText();
    const auto text = result.firstText();
    return text.empty() || result.isError ? JSON() : parseJSON(text);
}

}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// A request handler over fake services, called the way a client calls it.
#pragma once

#include <gtest/gtest.h>

#include "automation/MCPRequestHandler.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeGuestChannelRouter.h"
#include "support/FakeSandboxService.h"
#include "support/FakeSnapshotService.h"
#include "support/FakeVMService.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {

class MCPToolFixture : public testing::Test {
  protected:
    using Case = DorvaneError::Case;

    MCPToolFixture() { makeHandler(true); }

    void makeHandler(bool hasEveryService) {
        using Services = MCPToolContext::Services;
        const auto services = hasEveryService ? Services{vmService, &snapshots, &router, &sandboxes, settings}
                                              : Services{.vmService = vmService, .settingsService = settings};
        handler = std::make_shared<MCPRequestHandler>(host.runtime(), services, &activity, "1.2.3",
                                                      [this] { return token; });
    }
    void allowSandboxes() { defaults.set(defaultsKey::mcpDestructiveToolsEnabled, true); }

    MCPToolResult call(const std::string& tool, const std::string& arguments) {
        return host.run(handler->callTool(tool, parseJSON(arguments)));
    }
    /// The text of a failure; anything else fails the test.
    std::string failure(const std::string& tool, const std::string& arguments) {
        const auto result = call(tool, arguments);
        EXPECT_TRUE(result.isError) << tool << arguments << ": " << result.firstText();
        return result.firstText();
    }
    /// The value of a success.
    JSON value(const std::string& tool, const std::string& arguments) {
        const auto result = call(tool, arguments);
        const auto text = result.firstText();
        EXPECT_FALSE(result.isError) << tool << arguments << ": " << text;
        return text.empty() || result.isError ? JSON() : parseJSON(text);
    }
    /// What an agent reads of an error.
    static std::string told(const DorvaneError& error) {
        return describedWithSuggestion(std::make_exception_ptr(error));
    }

    TestRuntime host;
    LogCapture log;
    FakeDefaultsStore defaults;
    ApplicationDirectories directories;
    SettingsService settings{defaults, directories, "user"};
    VMOperationGate gate;
    FakeVMService vmService;
    FakeSnapshotService snapshots{gate};
    FakeGuestChannelRouter router;
    FakeSandboxService sandboxes{vmService, host.clock()};
    AgentActivityLog activity{host.runtime(), std::nullopt};
    std::optional<std::string> token = "secret";
    std::shared_ptr<MCPRequestHandler> handler;
};

}  // namespace dorvane::test

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
    MCPToolFixture();
    ~MCPToolFixture() override;

    void makeHandler(bool hasEveryService);
    void allowSandboxes();

    MCPToolResult call(const std::string& tool, const char* arguments);
    /// The text of a failure; anything else fails the test.
    std::string failure(const std::string& tool, const char* arguments);
    /// The value of a success.
    JSON value(const std::string& tool, const char* arguments);

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

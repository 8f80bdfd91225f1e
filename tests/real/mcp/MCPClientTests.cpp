// SPDX-License-Identifier: Apache-2.0
// The MCP server in the eyes of the public client from npm. DORVANE_MCP_URL names a running server to talk to
// instead of the one that the test makes. The first run fetches the client with `npm ci`.
#include <gtest/gtest.h>

#include "automation/MCPRequestHandler.h"
#include "automation/MCPServerService.h"
#include "runtime/ChildProcess.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/Sockets.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeKeychain.h"
#include "support/FakeVMService.h"

namespace dorvane::test {
namespace {

const Path clientFolder = Path(DORVANE_SOURCE_DIR) / "tests" / "real" / "mcp" / "client";

void installClient() {
    if (std::filesystem::exists(clientFolder / "node_modules" / "@modelcontextprotocol")) return;
    ProcessCommand npm{"/usr/bin/env", {"npm", "ci", "--prefix", clientFolder.string()}};
    npm.standardError = StandardStream::inherit;
    ASSERT_TRUE(runBlocking(npm).status.isSuccess());
}

ProcessCommand clientCommand(const std::string& url) {
    ProcessCommand node{"/usr/bin/env", {"node", (clientFolder / "client.mjs").string(), url}};
    node.standardOutput = StandardStream::pipe;
    node.standardError = StandardStream::inherit;
    return node;
}

/// The server over a library of two machines in memory.
class Server {
  public:
    explicit Server(const Runtime& runtime)
        : activity_(runtime, std::nullopt), server_(runtime, settings_, keychain_) {
        vmService_.add("Ubuntu", VMOSType::linux, VMStatus::running);
        vmService_.add("Windows 11", VMOSType::windows);
        const MCPToolContext::Services services{vmService_, nullptr, nullptr, nullptr, settings_};
        server_.attachHandler(std::make_shared<MCPRequestHandler>(
            runtime, services, &activity_, "1.2.3", [this] { return server_.endpointToken(); }));
        const auto probe = listenLoopback(0);
        defaults_.set(defaultsKey::mcpServerPort, boundPort(probe.get()));
    }

    Task<void> start(const Runtime& runtime) {
        server_.start();
        const bool isRunning = co_await pollUntil(runtime.clock, seconds(5), milliseconds(10),
                                                  [this] { return server_.isRunning(); });
        if (!isRunning)
            throw std::runtime_error(server_.lastErrorMessage().value_or("the server did not start"));
    }
    Task<void> shutdown() { return server_.shutdown(); }
    std::string url() const { return server_.endpointURLString(); }
    const AgentActivityLog& activity() const { return activity_; }

  private:
    FakeDefaultsStore defaults_;
    ApplicationDirectories directories_;
    SettingsService settings_{defaults_, directories_, "user"};
    FakeKeychain keychain_;
    FakeVMService vmService_;
    AgentActivityLog activity_;
    MCPServerService server_;
};

/// What the client saw of the server at the URL, or of one made here.
class Session {
  public:
    JSON run() {
        if (const auto* url = std::getenv("DORVANE_MCP_URL")) return read(runBlocking(clientCommand(url)));
        OneShot<ProcessOutput> outcome;
        const auto conversation = [](const Runtime& runtime, Server& server) -> Task<ProcessOutput> {
            co_await server.start(runtime);
            auto output = co_await runProcess(runtime, clientCommand(server.url()));
            co_await server.shutdown();
            co_return output;
        };
        auto task = spawn(process_.runtime().main.executor(),
                          deliver(conversation(process_.runtime(), server_), outcome), "conversation");
        const auto stop = [](TaskHandle& awaited, ProcessRuntime& process) -> Task<void> {
            co_await awaited.finished();
            process.stop();
        };
        auto stopping = spawn(process_.runtime().main.executor(), stop(task, process_), "stop");
        process_.run();
        return read(outcome.take());
    }
    const AgentActivityLog& activity() const { return server_.activity(); }

  private:
    static JSON read(const ProcessOutput& output) {
        EXPECT_TRUE(output.status.isSuccess());
        return parseJSON(asText(output.standardOutput));
    }

    ProcessRuntime process_;
    Server server_{process_.runtime()};
};

TEST(MCPClient, understandsTheServer) {
    installClient();
    Session session;
    const auto seen = session.run();
    EXPECT_EQ(seen["server"]["name"], "Dorvane");
    EXPECT_TRUE(
        seen["instructions"].get<std::string>().starts_with("Drive the virtual machines on this Mac."));
    EXPECT_EQ(seen["capabilities"].dump(), R"({"tools":{}})");
    EXPECT_EQ(seen["ping"].dump(), "{}");
    ASSERT_GE(seen["tools"].size(), 12u);
    EXPECT_EQ(seen["tools"][0]["name"], "list_vms");
    EXPECT_EQ(seen["tools"][11]["name"], "screenshot");
    for (const auto& count : seen["together"]) EXPECT_EQ(count, seen["tools"].size());
    EXPECT_EQ(seen["machines"]["isError"], false);
    EXPECT_TRUE(parseJSON(seen["machines"]["content"][0]["text"].get<std::string>()).is_array());
    EXPECT_EQ(seen["unknownMachine"]["isError"], true);
    EXPECT_TRUE(seen["unknownMachine"]["content"][0]["text"].get<std::string>().starts_with(
        "No VM named 'no such machine'. Known VMs: "));
    EXPECT_NE(seen["staleToken"], "none");
    if (std::getenv("DORVANE_MCP_URL") != nullptr) return;
    EXPECT_EQ(seen["server"]["version"], "1.2.3");
    EXPECT_EQ(parseJSON(seen["machines"]["content"][0]["text"].get<std::string>())[0]["name"], "Ubuntu");
    ASSERT_EQ(session.activity().entries().size(), 2u);
    EXPECT_EQ(session.activity().entries()[1].vm, "no such machine");
}

}  // namespace
}  // namespace dorvane::test

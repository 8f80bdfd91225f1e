// SPDX-License-Identifier: Apache-2.0
// The MCP server in a process of its own, over a library of machines in memory. Prints "ready <port> <token>"
// and runs until its standard input ends.
#include <boost/asio/posix/stream_descriptor.hpp>
#include <csignal>
#include <cstdio>

#include "automation/MCPRequestHandler.h"
#include "automation/MCPServerService.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/Sockets.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeKeychain.h"
#include "support/FakeVMService.h"

namespace dorvane::bench {
namespace {

class Host {
  public:
    explicit Host(const Runtime& runtime) : runtime_(runtime) {
        for (const auto* name : {"Ubuntu", "Windows 11", "macOS"}) vmService_.add(name);
        handler_ = std::make_shared<MCPRequestHandler>(
            runtime, MCPToolContext::Services{vmService_, nullptr, nullptr, nullptr, settings_}, nullptr, "0",
            [this] { return server_.endpointToken(); });
        server_.attachHandler(handler_);
        server_.changed.connect([this] { tell(); });
        const auto probe = listenLoopback(0);
        defaults_.set(defaultsKey::mcpServerPort, boundPort(probe.get()));
    }
    void start() { server_.start(); }
    Task<void> shutdown() { return server_.shutdown(); }

  private:
    void tell() {
        if (server_.lastErrorMessage()) std::fprintf(stderr, "%s\n", server_.lastErrorMessage()->c_str());
        if (!server_.isRunning()) return;
        std::printf("ready %d %s\n", server_.effectivePort(), server_.endpointToken().c_str());
        std::fflush(stdout);
    }

    const Runtime& runtime_;
    test::FakeDefaultsStore defaults_;
    ApplicationDirectories directories_;
    SettingsService settings_{defaults_, directories_, "user"};
    test::FakeKeychain keychain_;
    test::FakeVMService vmService_;
    std::shared_ptr<MCPRequestHandler> handler_;
    MCPServerService server_{runtime_, settings_, keychain_};
};

int run() {
    std::signal(SIGPIPE, SIG_IGN);
    setLogLevel(LogLevel::error);
    ProcessRuntime process;
    const auto& runtime = process.runtime();
    Host host(runtime);
    host.start();
    // Ends with whoever started it.
    std::jthread watcher([&] {
        while (std::getchar() != EOF) {
        }
        runtime.main.async([&] { process.stop(); });
    });
    process.run();
    auto ending = spawn(runtime.main.executor(), host.shutdown(), "shutdown");
    runtime.main.async([&] { process.stop(); });
    process.run();
    return 0;
}

}  // namespace
}  // namespace dorvane::bench

int main() { return dorvane::bench::run(); }

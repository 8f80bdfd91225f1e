// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "RawClient.h"
#include "automation/MCPAuthToken.h"
#include "automation/MCPLoopbackProbe.h"
#include "automation/MCPServerService.h"
#include "support/FakeDefaultsStore.h"
#include "support/FakeKeychain.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

int freePort() {
    const auto fd = listenLoopback(0);
    return boundPort(fd.get());
}

/// Answers "<method> <path> <body>", at once or when a test lets it.
class EchoHandler : public MCPRequestHandlerProtocol {
  public:
    bool holdsCalls = false;
    Event release;
    int begun = 0, finished = 0, cancelled = 0;

    Task<MCPHTTPResponse> handle(HTTPRequestParser::Request request) override {
        ++begun;
        try {
            if (holdsCalls) co_await release.wait();
        } catch (const CancellationError&) {
            ++cancelled;
            throw;
        }
        ++finished;
        MCPHTTPResponse response;
        response.body = request.method + " " + request.path + " " + std::string(asText(request.body));
        co_return response;
    }
};

class MCPServerServiceTest : public testing::Test {
  protected:
    void SetUp() override {
        defaults.set(defaultsKey::mcpServerPort, port);
        keychain.save("com.brontide.dorvane.mcp", "endpointToken", asBytes("secret"));
        server = std::make_unique<MCPServerService>(host.runtime(), settings, keychain);
        server->attachHandler(handler);
    }
    void start() {
        server->start();
        host.driveUntil([&] { return server->isRunning() || server->lastErrorMessage(); });
        ASSERT_TRUE(server->isRunning()) << server->lastErrorMessage().value_or("");
    }
    void TearDown() override {
        if (server) host.run(server->shutdown());
    }
    /// Leaves a call with the handler, which doesn't answer it yet.
    void leaveCall(RawClient& client, std::string_view body = {}) {
        const int before = handler->begun;
        handler->holdsCalls = true;
        client.send(post("/mcp/secret", body));
        host.driveUntil([&] { return handler->begun > before; });
    }
    /// What the server sends until it closes.
    std::string answer(RawClient& client) {
        host.driveUntil([&] { return client.isEnded(); });
        return client.received;
    }
    std::string exchange(std::string_view request) {
        RawClient client(server->effectivePort());
        client.send(request);
        return answer(client);
    }
    static std::string post(std::string_view path, std::string_view body) {
        return fmt::format("POST {} HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: {}\r\n\r\n{}", path,
                           body.size(), body);
    }
    static std::string echoed(const std::string& text) {
        return fmt::format("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: {}\r\n\r\n{}",
                           text.size(), text);
    }

    static constexpr auto badRequest =
        "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    static constexpr auto unauthorized =
        "HTTP/1.1 401 Unauthorized - reconnect Dorvane in your MCP client\r\nConnection: close\r\n"
        "Content-Length: 0\r\nWWW-Authenticate: Bearer\r\n\r\n";

    TestRuntime host{TestRuntime::TimeMode::manual};
    const int port = freePort();
    FakeDefaultsStore defaults;
    ApplicationDirectories directories;
    SettingsService settings{defaults, directories, "user"};
    FakeKeychain keychain;
    std::shared_ptr<EchoHandler> handler = std::make_shared<EchoHandler>();
    std::unique_ptr<MCPServerService> server;
    LogCapture log;
};

TEST_F(MCPServerServiceTest, goesThroughItsStates) {
    EXPECT_EQ(server->endpointURLString(), "http://127.0.0.1:" + std::to_string(port) + "/mcp/secret");
    server->attachHandler(nullptr);
    server->start();
    EXPECT_EQ(server->lastErrorMessage(), "MCP server is not ready yet. Relaunch Dorvane and try again.");
    server->attachHandler(handler);
    start();
    EXPECT_FALSE(server->lastErrorMessage());
    EXPECT_TRUE(log.contains("MCP server ready on 127.0.0.1:" + std::to_string(port)));
    server->start();
    server->stop();
    EXPECT_FALSE(server->isRunning());
    server->start();
    server->stop();
    host.settle();
    EXPECT_FALSE(server->isRunning()) << "news of a listener that was stopped meanwhile counts for nothing";
    EXPECT_FALSE(RawClient(port).isConnected);
    start();
    EXPECT_EQ(exchange(post("/mcp/secret", "x")), echoed("POST /mcp/secret x"));
}

TEST_F(MCPServerServiceTest, tellsOfAPortInUse) {
    const auto other = listenLoopback(static_cast<std::uint16_t>(port));
    server->start();
    host.driveUntil([&] { return server->lastErrorMessage().has_value(); });
    EXPECT_EQ(server->lastErrorMessage(), "Failed to start MCP server: Address already in use");
    EXPECT_FALSE(server->isRunning());
    EXPECT_TRUE(log.contains("MCP listener failed: Address already in use"));
}

TEST_F(MCPServerServiceTest, keepsItsSwitchAndPortInTheSettings) {
    EXPECT_FALSE(server->isEnabled());
    server->setEnabled(true);
    host.driveUntil([&] { return server->isRunning(); });
    EXPECT_EQ(defaults.boolean(defaultsKey::mcpServerEnabled), true);
    EXPECT_FALSE(server->setPort(1023));
    EXPECT_FALSE(server->setPort(65536));
    EXPECT_TRUE(server->setPort(port));
    EXPECT_TRUE(server->isRunning()) << "the same port is no reason to restart";
    const int other = freePort();
    EXPECT_TRUE(server->setPort(other));
    EXPECT_FALSE(server->isRunning());
    host.driveUntil([&] { return server->isRunning(); });
    EXPECT_FALSE(RawClient(port).isConnected);
    EXPECT_EQ(exchange(post("/mcp/secret", "")), echoed("POST /mcp/secret "));
    server->setEnabled(false);
    EXPECT_FALSE(server->isRunning());
    for (const auto& stored : {JSON(80), JSON(70000), JSON("59801"), JSON()}) {
        defaults.set(defaultsKey::mcpServerPort, stored);
        EXPECT_EQ(server->effectivePort(), 59800) << stored;
    }
}

TEST_F(MCPServerServiceTest, judgesRequests) {
    start();
    const std::string longHeader(65600, 'a');
    const struct {
        std::string request, expected;
    } cases[] = {
        {"get /mcp HTTP/1.0\r\nAuthorization: Bearer secret\r\n\r\n", echoed("get /mcp ")},
        {post("/mcp/secret", "{}") + "POST / HTTP/1.1\r\n\r\n", echoed("POST /mcp/secret {}")},
        {"POST /mcp/wrong HTTP/1.1\r\nContent-Length: 4194304\r\n\r\n", unauthorized},
        {"POST /mcpx HTTP/1.1\r\nAuthorization: Bearer secret\r\n\r\n", unauthorized},
        {"GET / HTTP/1.1\r\nAuthorization: Bearer secret\r\n\r\n", unauthorized},
        {"POST /mcp/secret HTTP/1.1\r\nContent-Length: 4194305\r\n\r\n", badRequest},
        {"POST /mcp/secret HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", badRequest},
        {"POST /mcp/secret HTTP/1.1\r\nX: " + longHeader, badRequest},
        {"hello\r\n\r\n", badRequest},
    };
    for (const auto& one : cases) EXPECT_EQ(exchange(one.request), one.expected) << one.request.substr(0, 80);
    RawClient ending(port);
    ending.send("POST /mcp/secret HTTP/1.1\r\nContent-Length: 3\r\n\r\nab");
    ending.endSending();
    EXPECT_EQ(answer(ending), "") << "it ends before its request is whole";
    EXPECT_EQ(handler->begun, 2);
}

TEST_F(MCPServerServiceTest, refusesBeforeTheBodyAndIsHeardNevertheless) {
    start();
    RawClient client(port);
    client.send("POST /mcp/stale HTTP/1.1\r\nContent-Length: 4000000\r\n\r\n");
    const std::string body(100000, 'x');
    std::size_t sent = 0;
    host.driveUntil([&] {
        if (sent < 4000000) sent += client.send(body);
        return client.isEnded();
    });
    EXPECT_EQ(client.received, unauthorized);
    EXPECT_FALSE(client.wasReset);
    EXPECT_EQ(handler->begun, 0);
}

TEST_F(MCPServerServiceTest, letsACallTakeItsTime) {
    start();
    RawClient client(port);
    leaveCall(client, "slow");
    client.endSending();
    host.clock().advance(seconds(3600));
    host.settle();
    EXPECT_FALSE(client.isEnded());
    handler->release.set();
    EXPECT_EQ(answer(client), echoed("POST /mcp/secret slow"));
}

TEST_F(MCPServerServiceTest, holdsSixteenConnectionsAndCutsOffThoseThatStall) {
    start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 16; ++i) clients.push_back(std::make_unique<RawClient>(port));
    clients.front()->send("POST /mcp/secret HTTP/1.1\r\nContent-Le");
    host.settle();
    RawClient refused(port);
    refused.send(post("/mcp/secret", ""));
    EXPECT_EQ(answer(refused), "");
    clients.pop_back();
    host.settle();
    EXPECT_EQ(exchange(post("/mcp/secret", "")), echoed("POST /mcp/secret "));
    host.clock().advance(milliseconds(14999));
    host.settle();
    for (const auto& client : clients) EXPECT_FALSE(client->isEnded());
    host.clock().advance(milliseconds(1));
    for (const auto& client : clients) EXPECT_EQ(answer(*client), "");
    EXPECT_EQ(exchange(post("/mcp/secret", "")), echoed("POST /mcp/secret "));
}

TEST_F(MCPServerServiceTest, survivesClientsThatVanishDuringACall) {
    start();
    for (int i = 0; i < 16; ++i) {
        RawClient client(port);
        leaveCall(client);
        i % 2 == 0 ? client.close() : client.abort();
    }
    host.settle();
    RawClient next(port);
    leaveCall(next);
    handler->release.set();
    host.driveUntil([&] { return handler->finished == 17; });
    host.settle();
    EXPECT_EQ(exchange(post("/mcp/secret", "")), echoed("POST /mcp/secret "));
}

TEST_F(MCPServerServiceTest, letsAcceptedConnectionsRunToTheirEndAfterStop) {
    start();
    RawClient sending(port), calling(port);
    sending.send("POST /mcp/secret?a=b HTTP/1.1\r\nContent-Length: 3\r\n\r\nb");
    leaveCall(calling, "a");
    server->stop();
    host.settle();
    EXPECT_FALSE(RawClient(port).isConnected);
    for (const auto* piece : {"o", "b"}) {
        sending.send(piece);
        host.settle();
    }
    handler->release.set();
    EXPECT_EQ(answer(calling), echoed("POST /mcp/secret a"));
    EXPECT_EQ(answer(sending), echoed("POST /mcp/secret bob"));
}

TEST_F(MCPServerServiceTest, refusesTheOldTokenAfterANewOneWasMade) {
    start();
    RawClient early(port);
    early.send("POST /mcp/secret HTTP/1.1\r\n");
    host.settle();
    EXPECT_TRUE(server->regenerateToken());
    early.send("\r\n");
    EXPECT_EQ(answer(early), unauthorized);
    EXPECT_EQ(exchange(post("/mcp/secret", "")), unauthorized);
    const auto path = "/mcp/" + server->endpointToken();
    EXPECT_EQ(exchange(post(path, "")), echoed("POST " + path + " "));
    keychain.refuses = true;
    EXPECT_FALSE(server->regenerateToken());
    EXPECT_EQ(exchange(post(path, "")), unauthorized);
}

TEST_F(MCPServerServiceTest, endsItsCallsAndConnectionsWhenItGoes) {
    start();
    RawClient calling(port), idle(port);
    leaveCall(calling);
    server.reset();
    EXPECT_EQ(answer(calling), "");
    EXPECT_EQ(answer(idle), "");
    EXPECT_EQ(handler->cancelled, 1);
    EXPECT_EQ(handler.use_count(), 1) << "no task keeps the handler";
    EXPECT_FALSE(RawClient(port).isConnected);
}

TEST_F(MCPServerServiceTest, shutdownReturnsOnceNothingRunsAnyMore) {
    start();
    RawClient calling(port);
    leaveCall(calling);
    host.run(server->shutdown());
    EXPECT_EQ(handler->cancelled, 1);
    EXPECT_FALSE(server->isRunning());
    start();
    handler->release.set();
    EXPECT_EQ(exchange(post("/mcp/secret", "")), echoed("POST /mcp/secret ")) << "it can be started again";
}

TEST_F(MCPServerServiceTest, probeTellsWhatAnswers) {
    using Result = MCPLoopbackProbe::Result;
    const auto probe = [&](int at, const std::string& token) {
        return host.run(MCPLoopbackProbe::probe(host.runtime(), at, token));
    };
    EXPECT_EQ(probe(port, "secret"), Result::unreachable("Connection refused"));
    start();
    EXPECT_EQ(probe(port, "stale"), Result::unauthorized());
    EXPECT_EQ(probe(port, "secret"), Result::unexpectedResponse("Response was not an MCP tools/list result"));
    EXPECT_EQ(probe(0, "secret"), Result::unreachable("Invalid port"));
    EXPECT_EQ(probe(65536, "secret"), Result::unreachable("Invalid port"));
}

TEST_F(MCPServerServiceTest, probeGivesUpAfterThreeSeconds) {
    start();
    handler->holdsCalls = true;
    OneShot<MCPLoopbackProbe::Result> result;
    auto probe = spawn(host.runtime().io,
                       deliver(MCPLoopbackProbe::probe(host.runtime(), port, "secret"), result), "probe");
    host.driveUntil([&] { return handler->begun == 1; });
    host.clock().advance(seconds(3));
    host.driveUntil([&] { return probe.isFinished(); });
    EXPECT_EQ(result.take(), MCPLoopbackProbe::Result::unreachable("The MCP server did not respond."));
}

TEST(MCPLoopbackProbe, interpretsResponses) {
    using Result = MCPLoopbackProbe::Result;
    const auto malformed = Result::unexpectedResponse("Malformed HTTP response");
    const auto badStatus = Result::unexpectedResponse("Malformed status line");
    const auto otherBody = Result::unexpectedResponse("Response was not an MCP tools/list result");
    const struct {
        std::string response;
        Result expected;
    } cases[] = {
        {"", malformed},
        {"HTTP/1.1 200 OK\r\n", malformed},
        {"\r\n\r\n", malformed},
        {"HTTP/1.1 \xff\r\n\r\n", malformed},
        {"HTTP/1.1\r\n\r\n", badStatus},
        {"HTTP/1.1 2oo OK\r\n\r\n", badStatus},
        {"HTTP/1.1  401  No\r\n\r\n", Result::unauthorized()},
        {"HTTP/1.1 404 Not Found\r\nA: b\r\n\r\n", Result::unexpectedResponse("HTTP 404")},
        {"HTTP/1.1 200 OK\r\n\r\n{\"result\":{\"tools\":[{},{}]}}", Result::ok(2)},
        {"HTTP/1.1 200 OK\r\n\r\n{\"result\":{\"tools\":{}}}", otherBody},
        {"HTTP/1.1 200 OK\r\n\r\n{\"error\":{}}", otherBody},
        {"HTTP/1.1 200 OK\r\n\r\n[1]", otherBody},
        {"HTTP/1.1 200 OK\r\n\r\nhello", otherBody},
    };
    for (const auto& one : cases)
        EXPECT_EQ(MCPLoopbackProbe::interpret(asBytes(one.response)), one.expected) << one.response;
}

}  // namespace
}  // namespace dorvane::test

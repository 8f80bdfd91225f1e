// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "automation/MCPAuthToken.h"
#include "automation/MCPClientSetupSnippets.h"
#include "automation/MCPOrigin.h"
#include "support/FakeKeychain.h"

namespace dorvane::test {
namespace {

constexpr auto service = "com.brontide.dorvane.mcp";
constexpr auto account = "endpointToken";
constexpr auto authToken = "0123456789abcdef0123456789abcdef";

TEST(MCPAuthToken, makesOneWhenTheKeychainHoldsNoneWorthHaving) {
    for (const auto& held :
         {std::optional<std::string>{}, std::optional<std::string>{""}, std::optional<std::string>{"\xff"}}) {
        FakeKeychain keychain;
        if (held) keychain.save(service, account, asBytes(*held));
        const auto made = MCPAuthToken::load(keychain);
        EXPECT_EQ(made.size(), 32u);
        EXPECT_EQ(made.find_first_not_of("0123456789abcdef"), std::string::npos);
        EXPECT_EQ(keychain.read(service, account), toBytes(made));
        EXPECT_EQ(MCPAuthToken::load(keychain), made) << "it stays until it is regenerated";
        EXPECT_NE(MCPAuthToken::regenerate(keychain), made);
    }
}

TEST(MCPAuthToken, opensByPathOrByHeader) {
    const struct {
        std::string path;
        std::optional<std::string> authorization;
        bool expected;
    } cases[] = {
        {std::string("/mcp/") + authToken, std::nullopt, true},
        {std::string("/mcp/") + authToken + "/", std::nullopt, false},
        {"/mcp/", std::nullopt, false},
        {"/mcp", std::nullopt, false},
        {"/mcp/", std::string("Bearer ") + authToken, true},
        {"/mcp/wrong", std::string("BEARER ") + authToken, true},
        {std::string("/mcp/") + authToken, "Bearer wrong", true},
        {"/mcp", std::string("bearer  \t") + authToken + " ", true},
        {"/mcp", "Bearer ", false},
        {"/mcp", "Bearer", false},
        {"/mcp", "Bearer    ", false},
        {"/mcp", std::string("Basic ") + authToken, false},
        {"/mcp", std::string("Bearer ") + authToken + "0", false},
        {"/mcp", "Bearer 0123456789abcdef0123456789abcdee", false},
    };
    for (const auto& one : cases) {
        HTTPRequestParser::Headers headers;
        if (one.authorization) headers["authorization"] = *one.authorization;
        EXPECT_EQ(MCPAuthToken::isAuthorized(one.path, headers, authToken), one.expected)
            << one.path << " / " << one.authorization.value_or("-");
    }
    EXPECT_FALSE(MCPAuthToken::isAuthorized("/mcp/", {{"authorization", "Bearer "}}, ""));
}

TEST(MCPOrigin, allowsThisMachineAlone) {
    for (const auto* allowed :
         {"http://localhost", "https://127.0.0.1:8080", "http://[::1]:3000", "vscode://localhost"})
        EXPECT_TRUE(isAllowedMCPOrigin(allowed)) << allowed;
    for (const auto* refused :
         {"null", "", "localhost", "http://localhost.example.org", "http://127.0.0.1.example.org",
          "http://LOCALHOST", "http://localhost@example.org", "http://127.0.0.1@example.org",
          "http://127.0.0.1:80x", "http://[::1].example.org", "http://127.0.0.2", "http://",
          "http://local host", "file:///localhost"})
        EXPECT_FALSE(isAllowedMCPOrigin(refused)) << refused;
}

TEST(MCPClientSetupSnippets, keepsTheURLReadable) {
    const auto endpoint = MCPAuthToken::endpointURLString(59800, authToken);
    EXPECT_EQ(MCPClientSetupSnippets::jsonConfigSnippet(endpoint),
              "{\n  \"mcpServers\": {\n    \"dorvane\": {\n      \"type\": \"http\",\n      \"url\": "
              "\"http://127.0.0.1:59800/mcp/0123456789abcdef0123456789abcdef\"\n    }\n  }\n}");
}

}  // namespace
}  // namespace dorvane::test

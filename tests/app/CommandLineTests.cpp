// SPDX-License-Identifier: Apache-2.0
#include "app/CommandLine.h"

#include <gtest/gtest.h>

namespace dorvane::test {
namespace {

TEST(CommandLine, turnsWordsIntoOneRequest) {
    struct Case {
        std::vector<std::string> words;
        std::string method;
        JSON params;
    };
    const std::vector<Case> cases{
        {{"list"}, "list", JSON::object()},
        {{"status"}, "service.status", JSON::object()},
        {{"status", "Win"}, "status", {{"vm", "Win"}}},
        {{"stop", "--force", "Win"}, "stop", {{"vm", "Win"}, {"force", true}}},
        {{"create", "Win", "--cpus", "2", "--memory", "2048"},
         "create",
         {{"name", "Win"}, {"os", "windows"}, {"cpuCount", 2}, {"memoryMB", 2048}}},
        {{"snapshot", "take", "Win", "before", "--memory"},
         "snapshot.take",
         {{"vm", "Win"}, {"name", "before"}, {"includeMemory", true}}},
        {{"exec", "--timeout", "5", "Win", "dir", "/b"},
         "exec",
         {{"vm", "Win"}, {"command", "dir /b"}, {"timeout", 5.0}}},
        {{"settings", "set", "mcpServerPort", "6000"},
         "settings.set",
         {{"key", "mcpServerPort"}, {"value", "6000"}}},
        {{"mcp", "token", "--regenerate"}, "mcp.token", {{"regenerate", true}}},
    };
    for (const auto& expected : cases) {
        const auto request = parseCommandLine(expected.words);
        const auto* call = std::get_if<ServiceCall>(&request);
        ASSERT_NE(call, nullptr) << expected.method << std::get<PrintRequest>(request).text;
        EXPECT_EQ(call->method, expected.method);
        EXPECT_EQ(call->params, expected.params);
        EXPECT_FALSE(call->json);
    }
}

TEST(CommandLine, everyServiceCommandTakesJSONAndDeletesOnlyAfterAQuestion) {
    const auto asked = std::get<ServiceCall>(parseCommandLine({"delete", "Win", "--json"}));
    EXPECT_TRUE(asked.json);
    EXPECT_TRUE(asked.question);
    EXPECT_EQ(asked.unattendedCommand, "dorvane delete --yes Win");
    EXPECT_EQ(std::get<ServiceCall>(parseCommandLine({"delete", "Bob's PC"})).unattendedCommand,
              "dorvane delete --yes 'Bob'\\''s PC'");
    EXPECT_FALSE(std::get<ServiceCall>(parseCommandLine({"delete", "Win", "--yes"})).question);
}

TEST(CommandLine, mistakesAreUsageErrorsAndHelpIsNot) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{}, {"fly"}, {"start"}, {"stop", "a", "b"}, {"serve", "--port", "80"}}) {
        const auto print = std::get<PrintRequest>(parseCommandLine(words));
        EXPECT_TRUE(print.isError);
        EXPECT_EQ(print.exitStatus, 2);
    }
    const auto help = std::get<PrintRequest>(parseCommandLine({"--help"}));
    EXPECT_FALSE(help.isError);
    EXPECT_NE(help.text.find("screenshot"), std::string::npos);
}

TEST(Completion, knowsEveryCommandInEveryShell) {
    for (const auto* shell : {"bash", "zsh", "fish"}) {
        const auto script = completionScript(shell);
        ASSERT_TRUE(script);
        for (const auto* word : {"restart", "take", "probe", "regenerate"})
            EXPECT_NE(script->find(word), std::string::npos) << shell << " " << word;
    }
    EXPECT_FALSE(completionScript("tcsh"));
}

}  // namespace
}  // namespace dorvane::test

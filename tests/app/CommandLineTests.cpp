// SPDX-License-Identifier: Apache-2.0
#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <cmath>

#include "app/DurationText.h"
#include "app/ProgressDisplay.h"

namespace dorvane::test {
namespace {

TEST(CommandLine, turnsWordsIntoOneRequestWithOrWithoutJSON) {
    struct Case {
        std::vector<std::string> words;
        std::string method;
        JSON params;
    };
    const std::vector<Case> cases{
        {{"list"}, "list", JSON::object()},
        {{"status"}, "service.status", JSON::object()},
        {{"status", "Win"}, "status", {{"vm", "Win"}}},
        {{"discard", "Win"}, "discard", {{"vm", "Win"}}},
        {{"logs", "Win"}, "logs", {{"vm", "Win"}}},
        {{"keep", "Box"}, "keep", {{"vm", "Box"}}},
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
        {{"clone", "Win", "Copy"}, "clone", {{"vm", "Win"}, {"name", "Copy"}}},
        {{"clone", "Win", "--sandbox"}, "sandbox.create", {{"vm", "Win"}, {"isolated", false}}},
        {{"clone", "--sandbox", "--ttl", "90", "--isolated", "Win"},
         "sandbox.create",
         {{"vm", "Win"}, {"isolated", true}, {"ttlMinutes", 90}}},
        {{"extend", "Box", "1d12h"}, "extend", {{"vm", "Box"}, {"seconds", 129600}}},
        {{"extend", "Box", "-30m"}, "extend", {{"vm", "Box"}, {"seconds", -1800}}},
        {{"snapshot", "prune", "Win"}, "snapshot.prune", {{"vm", "Win"}}},
        {{"snapshot", "prune", "Win", "--keep", "0"}, "snapshot.prune", {{"vm", "Win"}, {"keep", 0}}},
        {{"backup", "Win", "/nowhere/win.zip"}, "backup", {{"vm", "Win"}, {"file", "/nowhere/win.zip"}}},
        {{"restore", "/dev/null", "--name", "New"}, "restore", {{"file", "/dev/null"}, {"name", "New"}}},
        {{"open", "dorvane://start?vm=Win"}, "open", {{"url", "dorvane://start?vm=Win"}}},
    };
    for (const auto& expected : cases)
        for (const bool json : {false, true}) {
            auto words = expected.words;
            if (json) words.insert(words.front() == "exec" ? words.begin() + 1 : words.end(), "--json");
            const auto request = parseCommandLine(words);
            const auto* call = std::get_if<ServiceCall>(&request);
            ASSERT_NE(call, nullptr) << expected.method << std::get<PrintRequest>(request).text;
            EXPECT_EQ(call->method, expected.method);
            EXPECT_EQ(call->params, expected.params);
            EXPECT_EQ(call->json, json) << expected.method;
        }
}

TEST(CommandLine, whatCannotBeTakenBackAsksFirst) {
    struct Case {
        std::vector<std::string> words;
        const char* unattended;
    };
    for (const auto& [words, unattended] :
         {Case{{"delete", "Win"}, "dorvane delete --yes Win"},
          Case{{"delete", "Bob's PC"}, "dorvane delete --yes 'Bob'\\''s PC'"},
          Case{{"delete", "Win", "--permanently"}, "dorvane delete --yes --permanently Win"},
          Case{{"discard", "Win"}, "dorvane discard --yes Win"},
          Case{{"snapshot", "restore", "Win", "a b"}, "dorvane snapshot restore --yes Win 'a b'"},
          Case{{"snapshot", "delete", "Win", "s"}, "dorvane snapshot delete --yes Win s"},
          Case{{"backup", "Win", "/dev/null"}, "dorvane backup --yes Win /dev/null"}}) {
        const auto call = std::get<ServiceCall>(parseCommandLine(words));
        EXPECT_TRUE(call.question) << unattended;
        EXPECT_EQ(call.unattendedCommand, unattended);
        auto confirmed = words;
        confirmed.emplace_back("--yes");
        EXPECT_FALSE(std::get<ServiceCall>(parseCommandLine(confirmed)).question) << unattended;
    }
    EXPECT_FALSE(std::get<ServiceCall>(parseCommandLine({"backup", "Win", "/nowhere/new.zip"})).question);
}

TEST(CommandLine, mistakesAreUsageErrorsThatNameTheCommandThatWorks) {
    struct Case {
        std::vector<std::string> words;
        const char* command = "";
    };
    for (const auto& [words, command] :
         {Case{{"clone", "My PC"}, "dorvane clone 'My PC' NAME"},
          Case{{"clone", "Win", "--ttl", "60"}, "dorvane clone --sandbox --ttl 60 Win"},
          Case{{"clone", "Win", "Copy", "--isolated"}, "dorvane clone --sandbox --isolated Win"},
          Case{{"clone", "Win", "Copy", "--sandbox"}, "dorvane clone --sandbox Win"},
          Case{{"extend", "Box", "soon"}, "dorvane extend Box 12h"},
          Case{{"backup", "Win", "/tmp"}, "dorvane backup Win /tmp/backup.zip"}, Case{}, Case{{"fly"}},
          Case{{"start"}}, Case{{"stop", "a", "b"}}, Case{{"serve", "--port", "80"}},
          Case{{"clone", "a", "--sandbox", "--ttl", "0"}},
          Case{{"clone", "a", "--sandbox", "--ttl", "10081"}}, Case{{"restore", "/nowhere/x.zip"}},
          Case{{"snapshot", "prune", "a", "--keep", "-1"}}}) {
        const auto print = std::get<PrintRequest>(parseCommandLine(words));
        EXPECT_TRUE(print.isError) << print.text;
        EXPECT_EQ(print.exitStatus, 2);
        EXPECT_NE(print.text.find(command), std::string::npos) << print.text;
    }
    const auto help = std::get<PrintRequest>(parseCommandLine({"--help"}));
    EXPECT_FALSE(help.isError);
    EXPECT_NE(help.text.find("screenshot"), std::string::npos);
}

TEST(Completion, knowsEveryCommandInEveryShell) {
    for (const auto* shell : {"bash", "zsh", "fish"}) {
        const auto script = completionScript(shell);
        ASSERT_TRUE(script);
        for (const auto* word : {"restart", "take", "probe", "regenerate", "sandbox", "prune", "backup"})
            EXPECT_NE(script->find(word), std::string::npos) << shell << " " << word;
    }
    EXPECT_FALSE(completionScript("tcsh"));
}

TEST(DurationText, readsSpansOfTime) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"90", 5400},    {"45s", 45},    {"90m", 5400}, {"1d12h", 129600},
        {"2w", 1209600}, {"-1h", -3600}, {"0m", 0},     {"366d", 31622400}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(parseDurationText(text), expected) << text;
    for (const auto* text :
         {"367d", "", "-", "h", "1h30", "1 h", "--1h", "1y", "99999999999w", "4000000000w4000000000w"})
        EXPECT_EQ(parseDurationText(text), std::nullopt) << text;
}

TEST(ProgressDisplay, drawsOnATerminalAndWritesLinesElsewhere) {
    const auto shown = [](bool isTerminal) {
        std::ostringstream out;
        ProgressDisplay display(out, isTerminal);
        display.show({"Preparing", std::nullopt});
        for (const double fraction : {0.0, 0.04, 0.41, 0.42, 7.0, std::nan("")})
            display.show({"Compressing", fraction});
        display.clear();
        return out.str();
    };
    EXPECT_EQ(shown(false), "Preparing…\nCompressing…\nCompressing 40%\nCompressing 100%\nCompressing…\n");
    const auto drawn = shown(true);
    EXPECT_NE(drawn.find("Compressing [############                  ]  41%"), std::string::npos) << drawn;
    EXPECT_EQ(drawn.find('\n'), std::string::npos);
    EXPECT_TRUE(drawn.ends_with("\r\x1b[K")) << "nothing is left behind";
}

}  // namespace
}  // namespace dorvane::test

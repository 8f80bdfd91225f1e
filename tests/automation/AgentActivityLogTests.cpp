// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "automation/AgentActivityLog.h"
#include "base/Text.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

class AgentActivityLogTest : public testing::Test {
  protected:
    AgentActivityEntry entry(std::string tool) {
        return {.date = *parseISO8601("2026-01-02T03:04:05Z"),
                .tool = std::move(tool),
                .vm = "Ubuntu",
                .summary = "ls",
                .succeeded = true,
                .error = {},
                .durationMilliseconds = 12};
    }
    std::vector<std::string> lines() {
        host.settle();
        auto all = split(readTextFile(file), '\n');
        EXPECT_EQ(all.back(), "") << "every line is ended";
        all.pop_back();
        return all;
    }

    TemporaryDirectory directory;
    TestRuntime host;
    const Path file = directory.path() / "AgentActivity" / "activity.jsonl";
};

TEST_F(AgentActivityLogTest, outlivesTheProcess) {
    auto failed = entry("exec_shell");
    failed.succeeded = false;
    failed.error = "no such VM\n\"x\"";
    failed.vm.reset();
    {
        AgentActivityLog log(host.runtime(), file);
        log.record(entry("start_vm"));
        log.record(failed);
        host.settle();
    }
    const AgentActivityLog again(host.runtime(), file);
    ASSERT_EQ(again.entries().size(), 2u);
    EXPECT_EQ(again.entries()[0].tool, "start_vm");
    EXPECT_EQ(again.entries()[1], failed);
}

TEST_F(AgentActivityLogTest, writesOneLineWithTheFieldNamesAsKeys) {
    AgentActivityLog log(host.runtime(), file);
    auto one = entry("stop_vm");
    one.id = *UUID::parse("00000000-0000-4000-8000-000000000001");
    log.record(one);
    EXPECT_EQ(lines(), std::vector<std::string>{
                           R"({"date":"2026-01-02T03:04:05Z","durationMilliseconds":12,)"
                           R"("id":"00000000-0000-4000-8000-000000000001","succeeded":true,"summary":"ls",)"
                           R"("tool":"stop_vm","vm":"Ubuntu"})"});
}

TEST_F(AgentActivityLogTest, cutsLongSummariesByCharacters) {
    AgentActivityLog log(host.runtime(), file);
    auto exact = entry("exec_shell"), longer = exact;
    for (int i = 0; i < 300; ++i) exact.summary = i == 0 ? "ü" : exact.summary + "ü";
    longer.summary = exact.summary + "x";
    log.record(exact);
    log.record(longer);
    EXPECT_EQ(log.entries()[0].summary, exact.summary);
    EXPECT_EQ(log.entries()[1].summary, exact.summary + "…");
}

TEST_F(AgentActivityLogTest, keepsTheNewestThousand) {
    AgentActivityLog log(host.runtime(), file);
    for (int i = 0; i < 1002; ++i) log.record(entry(std::to_string(i)));
    EXPECT_EQ(log.entries().size(), 1000u);
    EXPECT_EQ(log.entries().front().tool, "2");
    const auto written = lines();
    ASSERT_EQ(written.size(), 1000u);
    EXPECT_NE(written.front().find("\"tool\":\"2\""), std::string::npos);
    writeFileAtomically(file, readTextFile(file) + entry("last").encodedLine());
    const AgentActivityLog again(host.runtime(), file);
    EXPECT_EQ(again.entries().size(), 1000u);
    EXPECT_EQ(again.entries().front().tool, "3");
    EXPECT_EQ(again.entries().back().tool, "last");
}

TEST_F(AgentActivityLogTest, skipsWhatItCannotRead) {
    const auto good = entry("start_vm").encodedLine();
    auto mistyped = entry("x").encoded();
    mistyped["durationMilliseconds"] = true;
    std::filesystem::create_directories(file.parent_path());
    writeFileAtomically(
        file, "junk\n" + good + "\n\xff\xfe\n[]\n" + mistyped.dump() + "\n" + good + good.substr(0, 40));
    AgentActivityLog log(host.runtime(), file);
    EXPECT_EQ(log.entries().size(), 2u);
    log.record(entry("after"));
    host.settle();
    const AgentActivityLog again(host.runtime(), file);
    ASSERT_EQ(again.entries().size(), 3u) << "a line cut short doesn't swallow the next one";
    EXPECT_EQ(again.entries().back().tool, "after");
}

TEST_F(AgentActivityLogTest, startsOverAfterClear) {
    AgentActivityLog log(host.runtime(), file);
    log.record(entry("one"));
    log.clear();
    EXPECT_TRUE(log.entries().empty());
    log.record(entry("two"));
    EXPECT_EQ(lines().size(), 1u);
    log.clear();
    log.clear();
    host.settle();
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(AgentActivityLogTest, findsAMachineByNameOrIdentifier) {
    AgentActivityLog log(host.runtime(), std::nullopt);
    const auto id = UUID::random();
    for (const auto& vm : {std::optional<std::string>("Ubuntu"), std::optional<std::string>(id.text()),
                           std::optional<std::string>("ubuntu"), std::optional<std::string>()}) {
        auto one = entry("start_vm");
        one.vm = vm;
        log.record(one);
    }
    EXPECT_EQ(log.entries("Ubuntu", id).size(), 2u);
    EXPECT_EQ(log.entries("Renamed", id).size(), 1u);
}

TEST_F(AgentActivityLogTest, staysInMemoryWhenTheFileCannotBeWritten) {
    const LogCapture captured;
    std::filesystem::create_directories(file);  // a folder stands where the file should
    AgentActivityLog log(host.runtime(), file);
    log.record(entry("start_vm"));
    host.settle();
    EXPECT_EQ(log.entries().size(), 1u);
    EXPECT_TRUE(captured.contains("Could not write agent activity: "));
}

}  // namespace
}  // namespace dorvane::test

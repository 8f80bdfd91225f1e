// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "runtime/ChildProcess.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/TaskHandle.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

ProcessCommand helper(std::vector<std::string> arguments) {
    return {.executable = DORVANE_TEST_HELPER, .arguments = std::move(arguments)};
}

TEST(ChildProcess, programThatIsNotThereIsAnError) {
    EXPECT_THROW(ChildProcess::start({.executable = "/nowhere/program"}), POSIXError);
}

TEST(ChildProcess, gathersLargeOutputOfBothStreamsAndFeedsInput) {
    EXPECT_EQ(runBlocking(helper({"flood", "300000"})).standardError.size(), 300000U);
    const Bytes input(200000, 'y');
    EXPECT_EQ(runBlocking(helper({"cat"}), input).standardOutput, input);
}

TEST(ChildProcess, environmentReplacesTheInheritedOne) {
    auto command = helper({"environment", "DORVANE_TEST_VALUE"});
    command.environment = Environment{{"DORVANE_TEST_VALUE", "there"}, {"ASAN_OPTIONS", "detect_leaks=0"}};
    EXPECT_EQ(asText(runBlocking(command).standardOutput), "there");
}

TEST(ChildProcess, inheritsNoDescriptorBeyondItsStreams) {
    const FileDescriptor leaky(::open("/dev/null", O_RDONLY));  // deliberately without close-on-exec
    const auto output = runBlocking(helper({"descriptors"})).standardOutput;
    // 0, 1, 2 and the directory that the listing itself has open.
    EXPECT_EQ(std::ranges::count(asText(output), '\n'), 4) << asText(output);
}

TEST(ChildProcess, signalsStopOnceItHasEnded) {
    TestRuntime host(TestRuntime::TimeMode::manual);
    const auto child = ChildProcess::start(helper({"sleep"}));
    EXPECT_TRUE(child->terminate());
    EXPECT_EQ(host.run(child->wait()), (ExitStatus{ExitStatus::Kind::signaled, SIGTERM}));
    EXPECT_FALSE(child->terminate());
    EXPECT_FALSE(child->isRunning());
}

TEST(ChildProcess, cancelledRunEndsTheChild) {
    ProcessRuntime process;
    const auto& runtime = process.runtime();
    bool cancelled = false;
    auto work = spawn(
        runtime.main.executor(),
        [](ProcessRuntime& host, bool& seen) -> Task<void> {
            auto command = helper({"sleep"});
            try {
                co_await runProcess(host.runtime(), std::move(command));
            } catch (...) {
                seen = isCancellation(std::current_exception());
            }
            host.stop();
        }(process, cancelled),
        "work");
    const auto cancel =
        runtime.clock.schedule(runtime.main.executor(), milliseconds(50), [&] { work.cancel(); });
    process.run();
    EXPECT_TRUE(cancelled);
}

}  // namespace
}  // namespace dorvane::test

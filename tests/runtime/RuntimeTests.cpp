// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "runtime/AsyncStream.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/Timeout.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

/// Tells when a coroutine's frame is gone.
struct SetsAtItsEnd {
    bool& flag;
    ~SetsAtItsEnd() { flag = true; }
};

TEST(Clock, pollTriesAtOnceAndOnceMoreAtTheDeadline) {
    TestRuntime host;
    int tries = 0;
    const auto neverHolds = [&] { return ++tries > 100; };
    EXPECT_FALSE(host.run(pollUntil(host.clock(), seconds(1), milliseconds(250), neverHolds)));
    EXPECT_EQ(tries, 5);
}

TEST(TaskHandle, droppingItCancelsAtTheNextSuspension) {
    TestRuntime host;
    bool reached = false, unwound = false;
    auto handle = spawn(
        host.runtime().io,
        [](Clock& clock, bool& after, bool& left) -> Task<void> {
            const SetsAtItsEnd guard{left};
            co_await clock.sleep(seconds(5));
            after = true;
        }(host.clock(), reached, unwound),
        "sleeper");
    host.settle();
    EXPECT_FALSE(unwound);
    handle = TaskHandle();
    host.settle();
    EXPECT_TRUE(unwound);
    EXPECT_FALSE(reached);
}

TEST(TaskHandle, logsAnEscapingExceptionButNotACancellation) {
    TestRuntime host;
    const LogCapture log;
    auto failing = spawn(
        host.runtime().io,
        []() -> Task<void> {
            throw std::runtime_error("broken");
            co_return;
        }(),
        "work");
    auto cancelled = spawn(
        host.runtime().io, [](Clock& clock) -> Task<void> { co_await clock.sleep(seconds(1)); }(host.clock()),
        "other");
    cancelled.cancel();
    host.settle();
    EXPECT_TRUE(log.contains("work failed: broken"));
    EXPECT_FALSE(log.contains("other"));
}

TEST(Task, cleanUpGoesOnAfterIgnoringTheCancellation) {
    TestRuntime host;
    bool cleaned = false;
    auto handle = spawn(
        host.runtime().io,
        [](Clock& clock, bool& done) -> Task<void> {
            std::exception_ptr failure;
            try {
                co_await clock.sleep(seconds(5));
            } catch (...) {
                failure = std::current_exception();
            }
            co_await ignoreCancellation();
            co_await clock.sleep(seconds(1));
            done = isCancellation(failure);
        }(host.clock(), cleaned),
        "cleaner");
    host.settle();
    handle.cancel();
    host.driveUntil([&] { return handle.isFinished(); });
    EXPECT_TRUE(cleaned);
}

TEST(OneShot, firstOutcomeWins) {
    TestRuntime host;
    const OneShot<int> outcome;
    EXPECT_TRUE(outcome.succeed(1));
    EXPECT_FALSE(outcome.fail(std::runtime_error("late")));
    EXPECT_EQ(host.run(outcome.wait()), 1);
}

TEST(Timeout, loserHasEndedBeforeTheCallerGoesOn) {
    TestRuntime host;
    host.run([](Clock& clock) -> Task<void> {
        bool ended = false;
        const auto value = co_await withTimeout(clock, seconds(1), [](Clock& inner, bool& flag) -> Task<int> {
            const SetsAtItsEnd guard{flag};
            co_await inner.sleep(seconds(60));
            co_return 1;
        }(clock, ended));
        EXPECT_FALSE(value);
        EXPECT_TRUE(ended);
    }(host.clock()));
}

TEST(Timeout, passesExceptionsThroughAtOnce) {
    TestRuntime host;
    const auto before = host.clock().now();
    EXPECT_THROW(host.run([](Clock& clock) -> Task<void> {
        co_await withTimeout(clock, seconds(9), []() -> Task<int> {
            throw std::logic_error("no");
            co_return 0;
        }());
    }(host.clock())),
                 std::logic_error);
    EXPECT_EQ(host.clock().now(), before);
}

TEST(AsyncStream, yieldsThePresentThenChangesThenEnds) {
    TestRuntime host;
    StreamSource<int> source;
    auto stream = source.subscribe(1);
    source.yield(2);
    source.finish();
    source.yield(3);
    const auto values = host.run([](AsyncStream<int> in) -> Task<std::vector<int>> {
        std::vector<int> seen;
        while (auto value = co_await in.next()) seen.push_back(*value);
        co_return seen;
    }(stream));
    EXPECT_EQ(values, (std::vector{1, 2}));
    auto late = source.subscribe(7);
    EXPECT_EQ(host.run(late.next()), 7);
    EXPECT_EQ(host.run(late.next()), std::nullopt);
}

TEST(ProcessRuntime, hopsBetweenItsThreadsAndReturnsToTheCaller) {
    ProcessRuntime process;
    bool queueRan = false;
    const auto handle = spawn(
        process.runtime().main.executor(),
        [](ProcessRuntime& host, std::thread::id home, bool& queued) -> Task<void> {
            const auto& rt = host.runtime();
            const auto worker = co_await rt.background.run([] { return std::this_thread::get_id(); });
            EXPECT_NE(worker, home);
            co_await rt.clock.sleep(milliseconds(1));
            EXPECT_TRUE(rt.main.isCurrent());
            rt.makeQueue("test").sync([&] { queued = true; });
            host.stop();
        }(process, std::this_thread::get_id(), queueRan),
        "hops");
    process.run();
    EXPECT_TRUE(queueRan);
}

}  // namespace
}  // namespace dorvane::test

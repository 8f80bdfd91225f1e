// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "runtime/AsyncStream.h"
#include "runtime/ProcessRuntime.h"
#include "runtime/Timeout.h"
#include "support/LogCapture.h"
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

TEST(Clock, sleepsOnVirtualTimeWithoutWaiting) {
    TestRuntime host;
    const auto before = host.clock().now();
    host.run([](Clock& clock) -> Task<void> { co_await clock.sleep(seconds(90)); }(host.clock()));
    EXPECT_EQ(host.clock().now() - before, seconds(90));
}

TEST(Clock, droppedTimerNeverFires) {
    TestRuntime host;
    bool fired = false;
    {
        const auto timer = host.clock().schedule(host.runtime().io, seconds(1), [&] { fired = true; });
    }
    host.clock().advance(seconds(2));
    host.settle();
    EXPECT_FALSE(fired);
}

TEST(Clock, pollTriesAtOnceAndOnceMoreAtTheDeadline) {
    TestRuntime host;
    int tries = 0;
    const bool held = host.run(pollUntil(host.clock(), seconds(1), milliseconds(250), [&] {
        ++tries;
        return false;
    }));
    EXPECT_FALSE(held);
    EXPECT_EQ(tries, 5);
}

TEST(TaskHandle, droppingItCancelsAtTheNextSuspension) {
    TestRuntime host;
    bool reached = false, unwound = false;
    auto handle = spawn(
        host.runtime().io,
        [](Clock& clock, bool& after, bool& left) -> Task<void> {
            struct Guard {
                bool& flag;
                ~Guard() { flag = true; }
            } guard{left};
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
    const auto outcome = host.run([](Clock& clock) -> Task<std::pair<bool, bool>> {
        bool ended = false;
        const auto value = co_await withTimeout(clock, seconds(1), [](Clock& inner, bool& flag) -> Task<int> {
            struct Guard {
                bool& flag;
                ~Guard() { flag = true; }
            } guard{flag};
            co_await inner.sleep(seconds(60));
            co_return 1;
        }(clock, ended));
        co_return std::pair{value.has_value(), ended};
    }(host.clock()));
    EXPECT_FALSE(outcome.first);
    EXPECT_TRUE(outcome.second);
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
    const auto& runtime = process.runtime();
    const auto mainThread = std::this_thread::get_id();
    bool backgroundWasElsewhere = false, cameBack = false, queueRan = false;
    auto handle = spawn(
        runtime.main.executor(),
        [](ProcessRuntime& host, std::thread::id home, bool& away, bool& back, bool& queued) -> Task<void> {
            const auto& rt = host.runtime();
            const auto worker = co_await rt.background.run([] { return std::this_thread::get_id(); });
            away = worker != home;
            co_await rt.clock.sleep(milliseconds(1));
            back = rt.main.isCurrent();
            rt.makeQueue("test").sync([&] { queued = true; });
            host.stop();
        }(process, mainThread, backgroundWasElsewhere, cameBack, queueRan),
        "hops");
    process.run();
    EXPECT_TRUE(backgroundWasElsewhere);
    EXPECT_TRUE(cameBack);
    EXPECT_TRUE(queueRan);
}

}  // namespace
}  // namespace dorvane::test

// SPDX-License-Identifier: Apache-2.0
// Racing a task against time.
#pragma once

#include "runtime/Clock.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// The task's value, or absent when `limit` passed first. Exceptions of the task pass through. The loser is
/// cancelled and has ended before this returns, so it may refer to the caller's variables. T is not void.
template <typename T>
Task<std::optional<T>> withTimeout(Clock& clock, Duration limit, Task<T> task) {
    const Executor executor = co_await asio::this_coro::executor;
    const Event decided;
    OneShot<T> outcome;
    const auto race = [](Task<T> racer, OneShot<T> result, Event done) -> Task<void> {
        co_await deliver(std::move(racer), result);
        done.set();
    };
    auto handle = spawn(executor, race(std::move(task), outcome, decided), "withTimeout");
    auto timer = clock.schedule(executor, limit, [decided] { decided.set(); });
    std::exception_ptr cancelled;
    try {
        co_await decided.wait();
    } catch (...) {
        cancelled = std::current_exception();
    }
    const bool inTime = !cancelled && outcome.isDecided();
    handle.cancel();
    if (cancelled) co_await ignoreCancellation();
    co_await handle.finished();
    if (cancelled) std::rethrow_exception(cancelled);
    if (!inTime) co_return std::nullopt;
    co_return outcome.take();
}

}  // namespace dorvane

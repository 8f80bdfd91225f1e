// SPDX-License-Identifier: Apache-2.0
// A running task and the right to end it.
#pragma once

#include <string>

#include "runtime/Event.h"

namespace dorvane {

/// Owns a spawned task: a dropped handle cancels it. Safe to use from any thread.
class TaskHandle {
  public:
    TaskHandle() = default;
    TaskHandle(TaskHandle&&) noexcept = default;
    TaskHandle& operator=(TaskHandle&& other) noexcept;
    ~TaskHandle() { cancel(); }

    /// Asks the task to stop at its present or next suspension point; does nothing once it has ended.
    void cancel();
    /// Lets the task run to its end without an owner.
    void detach() { state_.reset(); }

    bool isFinished() const;
    explicit operator bool() const { return state_ != nullptr; }
    /// Returns when the task has ended, whatever its outcome.
    Task<void> finished() const;

  private:
    friend TaskHandle spawn(Executor executor, Task<void> task, std::string name);
    struct State;
    static Task<void> supervise(Task<void> task, std::string name);

    std::shared_ptr<State> state_;
};

/// Starts `task` on `executor`, which must run one thing at a time: the main thread or a serial queue. An
/// exception that leaves the task is logged under `name`; a cancellation is not.
[[nodiscard]] TaskHandle spawn(Executor executor, Task<void> task, std::string name);

/// Runs `task` to its end and hands what comes out to `outcome`.
template <typename T>
Task<void> deliver(Task<T> task, OneShot<T> outcome) {
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            outcome.succeed();
        } else {
            outcome.succeed(co_await std::move(task));
        }
    } catch (...) {
        outcome.fail(std::current_exception());
    }
}

/// Runs `task` on another serial executor and comes back to the caller's own with its value or exception. A
/// cancellation of the caller calls `stop` with the task's handle; the task has ended when this returns.
template <typename T, typename Stop>
Task<T> onExecutor(Executor executor, Task<T> task, Stop stop) {
    OneShot<T> outcome;
    auto handle = spawn(std::move(executor), deliver(std::move(task), outcome), "onExecutor");
    std::exception_ptr cancelled;
    try {
        co_await handle.finished();
    } catch (...) {
        cancelled = std::current_exception();
    }
    if (cancelled) {
        stop(handle);
        co_await ignoreCancellation();
        co_await handle.finished();
        std::rethrow_exception(cancelled);
    }
    if constexpr (std::is_void_v<T>)
        outcome.take();
    else
        co_return outcome.take();
}

/// The same for a task that a cancellation of the caller cancels.
template <typename T>
Task<T> onExecutor(Executor executor, Task<T> task) {
    return onExecutor(std::move(executor), std::move(task), [](TaskHandle& handle) { handle.cancel(); });
}

}  // namespace dorvane

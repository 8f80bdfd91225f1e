// SPDX-License-Identifier: Apache-2.0
#include "runtime/TaskHandle.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>

#include "runtime/Logger.h"

namespace dorvane {

struct TaskHandle::State {
    explicit State(Executor where) : executor(std::move(where)) {}
    Executor executor;
    asio::cancellation_signal signal;  // touched only on the executor
    Event finished;
};

TaskHandle& TaskHandle::operator=(TaskHandle&& other) noexcept {
    if (this != &other) {
        cancel();
        state_ = std::move(other.state_);
    }
    return *this;
}

void TaskHandle::cancel() {
    if (!state_ || state_->finished.isSet()) return;
    asio::post(state_->executor, [state = state_] {
        if (!state->finished.isSet()) state->signal.emit(asio::cancellation_type::all);
    });
}

bool TaskHandle::isFinished() const { return !state_ || state_->finished.isSet(); }

Task<void> TaskHandle::finished() const {
    if (const auto state = state_) co_await state->finished.wait();
}

TaskHandle spawn(Executor executor, Task<void> task, std::string name) {
    TaskHandle handle;
    handle.state_ = std::make_shared<TaskHandle::State>(executor);
    const auto state = handle.state_;
    // Posted once more, so that the coroutine's frames are gone when the signal may go and waiters go on.
    const auto end = [state](const std::exception_ptr&) {
        asio::post(state->executor, [state] { state->finished.set(); });
    };
    asio::co_spawn(executor, TaskHandle::supervise(std::move(task), std::move(name)),
                   asio::bind_cancellation_slot(state->signal.slot(), end));
    return handle;
}

Task<void> TaskHandle::supervise(Task<void> task, std::string name) {
    std::exception_ptr failure;
    try {
        co_await std::move(task);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure && !isCancellation(failure))
        Logger("Task").error("%{public}s failed: %{public}s", name, errorText(failure));
    // The library itself may still suspend once at the end, which a cancelled coroutine can't.
    co_await ignoreCancellation();
}

}  // namespace dorvane

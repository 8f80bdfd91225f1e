// SPDX-License-Identifier: Apache-2.0
#include "runtime/Clock.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <mutex>

namespace dorvane {
namespace {

/// One scheduled call. The lock decides between the timer firing and a cancellation from another thread.
struct ScheduledCall {
    explicit ScheduledCall(const Executor& executor) : timer(executor) {}
    std::mutex mutex;
    asio::steady_timer timer;
    std::function<void()> action;

    std::function<void()> take() {
        const std::lock_guard lock(mutex);
        return std::exchange(action, nullptr);
    }
};

}  // namespace

Task<void> SystemClock::sleep(Duration duration) {
    asio::steady_timer timer(ioExecutor_, duration);
    co_await timer.async_wait(asio::use_awaitable_t<Executor>{});
}

Timer SystemClock::schedule(Executor executor, Duration delay, std::function<void()> action) {
    auto call = std::make_shared<ScheduledCall>(ioExecutor_);
    call->action = std::move(action);
    const std::lock_guard lock(call->mutex);
    call->timer.expires_after(delay);
    call->timer.async_wait([call, executor = std::move(executor)](const boost::system::error_code& error) {
        if (error) return;
        // Taken only on the target executor, so that a cancellation there always comes in time.
        asio::post(executor, [call] {
            if (const auto run = call->take()) run();
        });
    });
    return Timer([call] {
        const auto dropped = call->take();
        const std::lock_guard guard(call->mutex);
        call->timer.cancel();
    });
}

Task<bool> pollUntil(Clock& clock, Duration timeout, Duration interval, std::function<bool()> condition) {
    const auto deadline = clock.now() + timeout;
    while (!condition()) {
        if (clock.now() >= deadline) co_return false;
        co_await clock.sleep(interval);
    }
    co_return true;
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Time, injected: production uses the machine's clocks, tests a virtual one.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "base/Date.h"
#include "runtime/Task.h"

namespace dorvane {

using Duration = std::chrono::nanoseconds;
using Instant = std::chrono::time_point<std::chrono::steady_clock, Duration>;

constexpr Duration seconds(double count) { return Duration(static_cast<Duration::rep>(count * 1e9)); }
constexpr Duration milliseconds(std::int64_t count) { return std::chrono::milliseconds(count); }

/// A scheduled call; dropping it cancels the call if it has not begun.
class Timer {
  public:
    Timer() = default;
    explicit Timer(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
    Timer(Timer&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
    Timer& operator=(Timer&& other) noexcept {
        if (this != &other) {
            cancel();
            cancel_ = std::exchange(other.cancel_, nullptr);
        }
        return *this;
    }
    ~Timer() { cancel(); }

    void cancel() {
        if (auto action = std::exchange(cancel_, nullptr)) action();
    }
    /// Lets the call happen without an owner.
    void detach() { cancel_ = nullptr; }

  private:
    std::function<void()> cancel_;
};

/// All operations may be called from any thread.
class Clock {
  public:
    virtual ~Clock() = default;

    /// Monotonic time, for deadlines and durations.
    virtual Instant now() const = 0;
    /// Wall-clock time, for what people and files see.
    virtual Date date() const = 0;
    /// Suspends the caller; throws a cancellation error when its task is cancelled meanwhile.
    virtual Task<void> sleep(Duration duration) = 0;
    /// Calls `action` on `executor` once `delay` has passed.
    [[nodiscard]] virtual Timer schedule(Executor executor, Duration delay, std::function<void()> action) = 0;
};

/// The machine's steady and system clocks; its timers live on `ioExecutor`.
class SystemClock : public Clock {
  public:
    explicit SystemClock(Executor ioExecutor) : ioExecutor_(std::move(ioExecutor)) {}

    Instant now() const override { return std::chrono::steady_clock::now(); }
    Date date() const override {
        return std::chrono::floor<Date::duration>(std::chrono::system_clock::now());
    }
    Task<void> sleep(Duration duration) override;
    Timer schedule(Executor executor, Duration delay, std::function<void()> action) override;

  private:
    Executor ioExecutor_;
};

/// Tests `condition` at once and then every `interval` until it holds or `timeout` has passed; says which.
Task<bool> pollUntil(Clock& clock, Duration timeout, Duration interval, std::function<bool()> condition);

}  // namespace dorvane

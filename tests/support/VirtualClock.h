// SPDX-License-Identifier: Apache-2.0
// Time that passes only when a test says so.
#pragma once

#include <map>
#include <mutex>

#include "runtime/Clock.h"

namespace dorvane::test {

class VirtualClock : public Clock {
  public:
    explicit VirtualClock(Executor executor) : executor_(std::move(executor)) {}

    Instant now() const override {
        const std::lock_guard lock(mutex_);
        return now_;
    }
    /// Starts at 2026-01-01T00:00:00Z and moves with `now`.
    Date date() const override;
    Task<void> sleep(Duration duration) override;
    Timer schedule(Executor executor, Duration delay, std::function<void()> action) override;

    /// Moves to the earliest pending timer and fires it; false when none is pending.
    bool advanceToNext() { return fireBefore(Instant::max()); }
    /// Moves by `duration`; timers due by then fire in order.
    void advance(Duration duration);
    std::size_t pendingTimers() const {
        const std::lock_guard lock(mutex_);
        return entries_.size();
    }

  private:
    struct Entry {
        Executor executor;
        std::function<void()> action;
    };
    using Key = std::pair<Instant, std::uint64_t>;

    bool fireBefore(Instant limit);

    mutable std::mutex mutex_;
    Executor executor_;
    Instant now_{};
    std::uint64_t nextID_ = 0;
    std::map<Key, Entry> entries_;
};

}  // namespace dorvane::test

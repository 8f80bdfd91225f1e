// SPDX-License-Identifier: Apache-2.0
#include "support/VirtualClock.h"

#include <boost/asio/post.hpp>

#include "runtime/Event.h"

namespace dorvane::test {

Date VirtualClock::date() const {
    return *parseISO8601("2026-01-01T00:00:00Z") +
           std::chrono::duration_cast<Date::duration>(now().time_since_epoch());
}

Task<void> VirtualClock::sleep(Duration duration) {
    const Event due;
    const auto timer = schedule(executor_, duration, [due] { due.set(); });
    co_await due.wait();
}

Timer VirtualClock::schedule(Executor executor, Duration delay, std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    const Key key{now_ + std::max(delay, Duration::zero()), nextID_++};
    entries_.emplace(key, Entry{std::move(executor), std::move(action)});
    return Timer([this, key] {
        const std::lock_guard guard(mutex_);
        entries_.erase(key);
    });
}

bool VirtualClock::fireBefore(Instant limit) {
    std::unique_lock lock(mutex_);
    if (entries_.empty() || entries_.begin()->first.first > limit) return false;
    auto node = entries_.extract(entries_.begin());
    now_ = std::max(now_, node.key().first);
    lock.unlock();
    asio::post(node.mapped().executor, std::move(node.mapped().action));
    return true;
}

void VirtualClock::advance(Duration duration) {
    const auto limit = now() + duration;
    while (fireBefore(limit)) {
    }
    const std::lock_guard lock(mutex_);
    now_ = limit;
}

}  // namespace dorvane::test

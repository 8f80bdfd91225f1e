// SPDX-License-Identifier: Apache-2.0
#include "runtime/SerialQueue.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <cassert>
#include <future>

namespace dorvane {

void SerialQueue::async(std::function<void()> action) const { asio::post(strand_, std::move(action)); }

void SerialQueue::sync(const std::function<void()>& action) const {
    if (isCurrent()) {
        action();
        return;
    }
    std::promise<void> done;
    asio::dispatch(strand_, [&] {
        try {
            action();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    done.get_future().get();
}

Timer SerialQueue::after(Clock& clock, Duration delay, std::function<void()> action) const {
    return clock.schedule(strand_, delay, std::move(action));
}

void SerialQueue::assertIsolated() const {
    assert(isCurrent() && "queue state touched from outside its queue");
}

}  // namespace dorvane

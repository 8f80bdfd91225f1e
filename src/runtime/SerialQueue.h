// SPDX-License-Identifier: Apache-2.0
// A labelled queue that runs one piece of work at a time, in order.
#pragma once

#include <boost/asio/strand.hpp>
#include <functional>
#include <string>

#include "runtime/Clock.h"

namespace dorvane {

/// A strand over a pool. Copies are the same queue. All operations may be called from any thread.
class SerialQueue {
  public:
    SerialQueue(const Executor& pool, std::string label)
        : strand_(asio::make_strand(pool)), label_(std::move(label)) {}

    const std::string& label() const { return label_; }
    /// For sockets, timers and coroutines that live on this queue.
    Executor executor() const { return strand_; }

    void async(std::function<void()> action) const;
    /// Waits for `action` to run on the queue; runs it at once when already there. Never call it from a
    /// thread that the queue's pool needs in order to make progress, other than from the queue itself.
    void sync(const std::function<void()>& action) const;
    [[nodiscard]] Timer after(Clock& clock, Duration delay, std::function<void()> action) const;

    bool isCurrent() const { return strand_.running_in_this_thread(); }
    void assertIsolated() const;

  private:
    asio::strand<Executor> strand_;
    std::string label_;
};

}  // namespace dorvane

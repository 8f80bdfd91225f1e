// SPDX-License-Identifier: Apache-2.0
// A Runtime on one thread: main, queues and background work all run inside the test, on virtual time.
#pragma once

#include <boost/asio/io_context.hpp>

#include "runtime/Runtime.h"
#include "runtime/TaskHandle.h"
#include "support/VirtualClock.h"

namespace dorvane::test {

class TestRuntime {
  public:
    /// `TimeMode::automatic`: whenever nothing is ready, time moves to the next timer. `manual`: only the
    /// test moves time (for code that talks to a real socket or child, whose answers must not race with
    /// virtual time).
    enum class TimeMode { automatic, manual };

    explicit TestRuntime(TimeMode mode = TimeMode::automatic) : mode_(mode) {}
    ~TestRuntime() { settle(); }

    const Runtime& runtime() const { return runtime_; }
    VirtualClock& clock() { return clock_; }

    /// Runs until the task ends and returns its value or throws its exception. Fails the test by throwing
    /// when nothing can make progress any more, or after 20 s of real time.
    void run(Task<void> task);
    template <typename T>
    T run(Task<T> task) {
        OneShot<T> outcome;
        auto handle = spawn(context_.get_executor(), deliver(std::move(task), outcome), "test");
        driveUntil([&] { return handle.isFinished(); });
        return outcome.take();
    }
    /// Runs everything that is ready, without moving time.
    void settle();
    /// Runs ready work (and, on automatic time, timers) until the condition holds; throws as `run` does.
    void driveUntil(const std::function<bool()>& condition);

  private:
    TimeMode mode_;
    asio::io_context context_{1};
    MainActor main_{context_.get_executor()};
    BackgroundPool background_{context_.get_executor()};
    VirtualClock clock_{context_.get_executor()};
    Runtime runtime_{main_, context_.get_executor(), background_, clock_};
};

}  // namespace dorvane::test

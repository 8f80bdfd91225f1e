// SPDX-License-Identifier: Apache-2.0
// The main thread as an executor.
#pragma once

#include <functional>
#include <thread>

#include "runtime/Task.h"

namespace dorvane {

/// Handed in at start: an io_context run by `main` in the headless service, Qt's event loop in the window.
/// Constructed on the thread that will run the executor.
class MainActor {
  public:
    explicit MainActor(Executor executor) : executor_(std::move(executor)) {}

    const Executor& executor() const { return executor_; }
    /// Runs `action` on the main thread later, never inside this call. From any thread.
    void async(std::function<void()> action) const;
    bool isCurrent() const { return std::this_thread::get_id() == thread_; }
    /// Aborts in debug builds when called off the main thread.
    void assertIsolated() const;

  private:
    Executor executor_;
    std::thread::id thread_ = std::this_thread::get_id();
};

}  // namespace dorvane

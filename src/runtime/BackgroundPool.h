// SPDX-License-Identifier: Apache-2.0
// Threads for work that blocks: copying disks, hashing, waiting for a tool.
#pragma once

#include <type_traits>

#include "runtime/Event.h"

namespace dorvane {

class BackgroundPool {
  public:
    explicit BackgroundPool(Executor executor) : executor_(std::move(executor)) {}

    const Executor& executor() const { return executor_; }

    /// Runs `work` on the pool and comes back to the caller's executor with its value or exception. The work
    /// may refer to the caller's variables: a cancellation of the caller takes effect only after the work has
    /// ended.
    template <typename Work, typename Result = std::invoke_result_t<Work&>>
    Task<Result> run(Work work) const {
        OneShot<Result> outcome;
        asio::post(executor_, [work = std::move(work), outcome]() mutable {
            // The failure is handed over, not shared: it ends where it is read.
            std::exception_ptr failure;
            try {
                if constexpr (std::is_void_v<Result>) {
                    work();
                    outcome.succeed();
                } else {
                    outcome.succeed(work());
                }
                return;
            } catch (...) {
                failure = std::current_exception();
            }
            outcome.fail(std::move(failure));
        });
        co_await outcome.waitUncancelled();
        if constexpr (std::is_void_v<Result>)
            outcome.take();
        else
            co_return outcome.take();
    }

  private:
    Executor executor_;
};

}  // namespace dorvane

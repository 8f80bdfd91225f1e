// SPDX-License-Identifier: Apache-2.0
// Coroutines: what waits is a Task.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <stdexcept>

namespace dorvane {

namespace asio = boost::asio;

/// Where a coroutine or a handler runs: the main thread, a queue, a pool.
using Executor = asio::any_io_executor;

/// A lazily started coroutine. It starts when awaited or spawned, and resumes on the executor it was given.
template <typename T = void>
using Task = asio::awaitable<T, Executor>;

/// Thrown at a suspension point of a cancelled task.
class CancellationError : public std::runtime_error {
  public:
    CancellationError() : std::runtime_error("The operation was cancelled.") {}
};

/// True for CancellationError and for the library's own "operation aborted".
bool isCancellation(const std::exception_ptr& error);
/// The message of a std::exception, and a plain sentence for anything else.
std::string errorText(const std::exception_ptr& error);

/// `co_await ignoreCancellation();`: from here on the calling coroutine, with those that await it, is no
/// longer cancelled. For clean-up that must run to its end.
inline auto ignoreCancellation() {
    // Not a coroutine itself: starting one would throw at once in a cancelled caller.
    return asio::this_coro::reset_cancellation_state(asio::disable_cancellation(),
                                                     asio::disable_cancellation());
}

}  // namespace dorvane

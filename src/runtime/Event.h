// SPDX-License-Identifier: Apache-2.0
// Waiting for something that another thread or callback does.
#pragma once

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>

#include "runtime/Task.h"

namespace dorvane {

/// Set once, from any thread; every waiter, early or late, goes on. Copies share the event.
class Event {
  public:
    Event() : state_(std::make_shared<State>()) {}

    void set() const;
    bool isSet() const;

    /// Returns when the event is set, on the caller's executor; throws CancellationError when cancelled
    /// first.
    Task<void> wait() const;
    /// The same, but deaf to a cancellation: for a caller whose variables somebody else still uses.
    Task<void> waitUncancelled() const;

  private:
    using Waker = std::function<void(bool cancelled)>;
    struct State {
        std::mutex mutex;
        bool isSet = false;
        std::uint64_t nextID = 0;
        std::map<std::uint64_t, Waker> waiters;
    };

    static Task<bool> suspend(std::shared_ptr<State> state, bool cancellable);
    static void addWaiter(const std::shared_ptr<State>& state, asio::cancellation_slot slot, Waker waker);

    std::shared_ptr<State> state_;
};

/// A value or an error that arrives once, from any thread: the first outcome counts, later ones do nothing.
/// Copies share the outcome. One consumer takes the value.
template <typename T>
class OneShot {
  public:
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

    /// Returns whether this call decided the outcome.
    bool succeed(Value value = {}) const { return decide(std::move(value)); }
    bool fail(std::exception_ptr error) const { return decide(std::move(error)); }
    template <typename Error>
    bool fail(Error error) const {
        return decide(std::make_exception_ptr(std::move(error)));
    }
    bool isDecided() const { return state_->event.isSet(); }

    /// The value, moved out, or the error, thrown. Throws CancellationError when cancelled first.
    Task<T> wait() const {
        const auto self = *this;
        co_await self.state_->event.wait();
        if constexpr (std::is_void_v<T>)
            self.take();
        else
            co_return self.take();
    }

    /// Returns once the outcome is decided, deaf to a cancellation of the caller; `take` has it then.
    Task<void> waitUncancelled() const { return state_->event.waitUncancelled(); }

    /// What `wait` returns, at once; only for a decided outcome.
    T take() const {
        std::unique_lock lock(state_->mutex);
        auto outcome = std::exchange(state_->outcome, Undecided{});
        lock.unlock();
        if (auto* error = std::get_if<std::exception_ptr>(&outcome)) std::rethrow_exception(*error);
        if constexpr (!std::is_void_v<T>) return std::move(std::get<Value>(outcome));
    }

  private:
    struct Undecided {};
    struct State {
        std::mutex mutex;
        std::variant<Undecided, Value, std::exception_ptr> outcome;
        bool decided = false;
        Event event;
    };

    template <typename Outcome>
    bool decide(Outcome outcome) const {
        {
            const std::lock_guard lock(state_->mutex);
            if (state_->decided) return false;
            state_->decided = true;
            state_->outcome = std::move(outcome);
        }
        state_->event.set();
        return true;
    }

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace dorvane

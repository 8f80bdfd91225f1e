// SPDX-License-Identifier: Apache-2.0
// A sequence of values that a consumer waits for one by one.
#pragma once

#include <deque>
#include <map>
#include <mutex>

#include "runtime/Event.h"

namespace dorvane {

/// The consumer's end. Values are kept until taken; none is missed. Dropping it unsubscribes.
template <typename T>
class AsyncStream {
  public:
    struct State {
        std::mutex mutex;
        std::deque<T> values;
        bool isFinished = false;
        Event changed;

        void push(T value) {
            update([&] { values.push_back(std::move(value)); });
        }
        void finish() {
            update([&] { isFinished = true; });
        }

      private:
        template <typename Change>
        void update(Change change) {
            std::unique_lock lock(mutex);
            if (isFinished) return;
            change();
            const auto event = changed;
            lock.unlock();
            event.set();
        }
    };

    AsyncStream() = default;
    explicit AsyncStream(std::shared_ptr<State> state) : state_(std::move(state)) {}

    /// The next value, or absent at the stream's end. Throws CancellationError when cancelled.
    Task<std::optional<T>> next() {
        const auto state = state_;
        for (;;) {
            std::unique_lock lock(state->mutex);
            if (!state->values.empty()) {
                auto value = std::move(state->values.front());
                state->values.pop_front();
                co_return value;
            }
            if (state->isFinished) co_return std::nullopt;
            state->changed = Event();
            const auto event = state->changed;
            lock.unlock();
            co_await event.wait();
        }
    }

  private:
    std::shared_ptr<State> state_;
};

/// The producer's end: each stream begins with the present value, gets every change, and ends. Any thread.
template <typename T>
class StreamSource {
  public:
    AsyncStream<T> subscribe(T present) {
        auto state = std::make_shared<typename AsyncStream<T>::State>();
        state->push(std::move(present));
        const std::lock_guard lock(mutex_);
        if (isFinished_)
            state->finish();
        else
            subscribers_.push_back(state);
        return AsyncStream<T>(std::move(state));
    }
    void yield(const T& value) {
        for (const auto& state : live()) state->push(value);
    }
    void finish() {
        for (const auto& state : live()) state->finish();
        const std::lock_guard lock(mutex_);
        isFinished_ = true;
        subscribers_.clear();
    }

  private:
    using Shared = std::shared_ptr<typename AsyncStream<T>::State>;

    std::vector<Shared> live() {
        const std::lock_guard lock(mutex_);
        std::vector<Shared> result;
        std::erase_if(subscribers_, [&](const auto& weak) {
            auto shared = weak.lock();
            if (shared) result.push_back(std::move(shared));
            return weak.expired();
        });
        return result;
    }

    std::mutex mutex_;
    std::vector<std::weak_ptr<typename AsyncStream<T>::State>> subscribers_;
    bool isFinished_ = false;
};

}  // namespace dorvane

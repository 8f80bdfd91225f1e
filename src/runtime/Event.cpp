// SPDX-License-Identifier: Apache-2.0
#include "runtime/Event.h"

namespace dorvane {

void Event::set() const {
    std::map<std::uint64_t, Waker> waiters;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->isSet) return;
        state_->isSet = true;
        waiters.swap(state_->waiters);
    }
    for (auto& [id, waker] : waiters) waker(false);
}

bool Event::isSet() const {
    const std::lock_guard lock(state_->mutex);
    return state_->isSet;
}

void Event::addWaiter(const std::shared_ptr<State>& state, asio::cancellation_slot slot, Waker waker) {
    std::unique_lock lock(state->mutex);
    if (state->isSet) {
        lock.unlock();
        waker(false);
        return;
    }
    const auto id = state->nextID++;
    state->waiters.emplace(id, std::move(waker));
    lock.unlock();
    if (!slot.is_connected()) return;
    slot.assign([weak = std::weak_ptr(state), id](asio::cancellation_type) {
        const auto shared = weak.lock();
        if (!shared) return;
        std::unique_lock guard(shared->mutex);
        auto node = shared->waiters.extract(id);
        guard.unlock();
        if (node) node.mapped()(true);
    });
}

Task<bool> Event::suspend(std::shared_ptr<State> state, bool cancellable) {
    const auto initiate = [state, cancellable](auto handler) {
        const auto slot =
            cancellable ? asio::get_associated_cancellation_slot(handler) : asio::cancellation_slot();
        const Executor executor = asio::get_associated_executor(handler);
        auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        addWaiter(state, slot, [shared, executor](bool cancelled) {
            asio::post(executor, [shared, cancelled] { std::move (*shared)(cancelled); });
        });
    };
    asio::use_awaitable_t<Executor> token;
    co_return co_await asio::async_initiate<asio::use_awaitable_t<Executor>, void(bool)>(initiate, token);
}

Task<void> Event::wait() const {
    const bool cancelled = co_await suspend(state_, true);
    if (cancelled) throw CancellationError();
}

Task<void> Event::waitUncancelled() const { co_await suspend(state_, false); }

}  // namespace dorvane

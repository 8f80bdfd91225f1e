// SPDX-License-Identifier: Apache-2.0
#include "runtime/SignalWatcher.h"

#include <boost/asio/signal_set.hpp>
#include <csignal>

namespace dorvane {

struct SignalWatcher::State : std::enable_shared_from_this<State> {
    State(const Executor& executor, std::function<void(int)> action)
        : signals(executor), handler(std::move(action)) {}

    void watch() {
        signals.async_wait([self = shared_from_this()](const boost::system::error_code& error, int number) {
            if (error || !self->handler) return;
            self->handler(number);
            self->watch();
        });
    }

    asio::signal_set signals;
    std::function<void(int)> handler;
};

SignalWatcher::SignalWatcher(Executor executor, const std::vector<int>& signals,
                             std::function<void(int)> handler)
    : state_(std::make_shared<State>(executor, std::move(handler))) {
    for (const int number : signals) state_->signals.add(number);
    state_->watch();
}

SignalWatcher::~SignalWatcher() {
    state_->handler = nullptr;
    boost::system::error_code ignored;
    state_->signals.cancel(ignored);
}

void ignoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Process signals as ordinary calls.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "runtime/Task.h"

namespace dorvane {

/// Calls the handler on the executor for each delivery of one of the signals, for as long as it lives. The
/// signals lose their default action meanwhile.
class SignalWatcher {
  public:
    SignalWatcher(Executor executor, const std::vector<int>& signals,
                  std::function<void(int signal)> handler);
    ~SignalWatcher();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

/// A write to a dead socket or pipe comes back as an error from here on. The very first act of a program.
void ignoreBrokenPipes();

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Virtual time that flows ten times as fast as real time, for code that waits for a real child or socket.
#pragma once

#include <thread>

#include "support/VirtualClock.h"

namespace dorvane::test {

/// Moves the clock for as long as it lives. For a TestRuntime on manual time.
class TimePump {
  public:
    explicit TimePump(VirtualClock& clock)
        : thread_([&clock](const std::stop_token& stop) {
              while (!stop.stop_requested()) {
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
                  clock.advance(milliseconds(10));
              }
          }) {}

  private:
    std::jthread thread_;
};

}  // namespace dorvane::test

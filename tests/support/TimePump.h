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
              using RealTime = std::chrono::steady_clock;
              constexpr auto step = std::chrono::milliseconds(1);
              // A sleep may take several times as long as it was asked to.
              for (auto due = RealTime::now() + step; !stop.stop_requested(); due += step) {
                  std::this_thread::sleep_until(due);
                  clock.advance(milliseconds(10));
              }
          }) {}

  private:
    std::jthread thread_;
};

}  // namespace dorvane::test

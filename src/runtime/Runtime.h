// SPDX-License-Identifier: Apache-2.0
// What every service needs of the process: the main thread, sockets' threads, blocking threads and time.
#pragma once

#include "runtime/BackgroundPool.h"
#include "runtime/Clock.h"
#include "runtime/MainActor.h"
#include "runtime/SerialQueue.h"

namespace dorvane {

/// Passed by reference to constructors and outlives all of them. Made once, by the program or by a test.
struct Runtime {
    const MainActor& main;
    /// Sockets, queues and timers run here; nothing on it may block.
    Executor io;
    const BackgroundPool& background;
    Clock& clock;

    SerialQueue makeQueue(std::string label) const { return {io, std::move(label)}; }
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Ending a child politely first.
#pragma once

#include <functional>

#include "runtime/ChildProcess.h"

namespace dorvane {

/// Sends SIGTERM now, and SIGKILL once `killAfter` has passed and the child still runs; `beforeKill` is
/// called then, on the main thread. The timer needs no owner. Does nothing for a child that has ended.
void terminateThenKill(const Runtime& runtime, const std::shared_ptr<ChildProcess>& child, Duration killAfter,
                       std::function<void()> beforeKill = {});

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
#include "qemu/ChildEnding.h"

namespace dorvane {

void terminateThenKill(const Runtime& runtime, const std::shared_ptr<ChildProcess>& child, Duration killAfter,
                       std::function<void()> beforeKill) {
    if (!child->terminate()) return;
    auto kill = [child, beforeKill = std::move(beforeKill)] {
        if (!child->isRunning()) return;
        if (beforeKill) beforeKill();
        child->kill();
    };
    runtime.clock.schedule(runtime.main.executor(), killAfter, std::move(kill)).detach();
}

}  // namespace dorvane

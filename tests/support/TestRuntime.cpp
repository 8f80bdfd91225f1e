// SPDX-License-Identifier: Apache-2.0
#include "support/TestRuntime.h"

namespace dorvane::test {
namespace {

constexpr auto realTimeLimit = std::chrono::seconds(20);
constexpr auto idleWait = std::chrono::milliseconds(2);

}  // namespace

void TestRuntime::run(Task<void> task) { run<void>(std::move(task)); }

void TestRuntime::settle() {
    context_.restart();
    while (context_.poll() > 0) context_.restart();
}

void TestRuntime::driveUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + realTimeLimit;
    while (!condition()) {
        context_.restart();
        if (context_.poll_one() > 0) continue;
        if (mode_ == TimeMode::automatic && clock_.advanceToNext()) continue;
        // Only a socket, a child or another thread can bring news now.
        context_.restart();
        const auto ran = context_.run_one_for(idleWait);
        if (ran == 0 && std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("the test made no progress for too long");
    }
}

}  // namespace dorvane::test

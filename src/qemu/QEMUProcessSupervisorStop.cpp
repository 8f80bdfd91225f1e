// SPDX-License-Identifier: Apache-2.0
// The ways of ending a machine: asked, told and killed.
#include "qemu/ChildEnding.h"
#include "qemu/QEMUProcessSupervisor.h"

namespace dorvane {
namespace {

constexpr auto powerDownTimeout = seconds(10.0);
constexpr auto gracefulInterval = milliseconds(250);
constexpr auto quitTimeout = seconds(10.0);
constexpr auto forcedQuitTimeout = seconds(2.0);
constexpr auto guestEndTimeout = seconds(8.0);
constexpr auto guestEndInterval = milliseconds(100);
constexpr auto stopKillDelay = 5.0;

}  // namespace

Task<void> QEMUProcessSupervisor::stop(bool force, Duration gracefulTimeout) {
    const auto self = shared_from_this();
    if (isTerminated_) co_return;
    co_await ignoreCancellation();
    if (!connection_)
        co_await stopWithoutConnection();
    else if (force)
        co_await stopByForce();
    else
        co_await stopGracefully(gracefulTimeout);
}

/// The child is in its first seconds, or there is none yet.
Task<void> QEMUProcessSupervisor::stopWithoutConnection() {
    stopReason_ = VMStopReason::forced();
    didRequestStop_ = true;
    hardTerminate();
    emulator_.terminate();
    if (child_) co_await waitForTermination(guestEndTimeout, guestEndInterval);
}

Task<void> QEMUProcessSupervisor::stopByForce() {
    stopReason_ = VMStopReason::forced();
    didRequestStop_ = true;
    co_await succeeds(connection_, "quit", forcedQuitTimeout);
    hardTerminate();
    co_await waitForTermination(guestEndTimeout, guestEndInterval);
}

Task<void> QEMUProcessSupervisor::stopGracefully(Duration timeout) {
    didRequestStop_ = true;
    stopReason_ = VMStopReason::requested();
    const bool wasAsked = co_await succeeds(connection_, "system_powerdown", powerDownTimeout);
    if (!wasAsked) {
        stopReason_ = VMStopReason::forced();
        hardTerminate();
        co_return;
    }
    const bool hasEnded = co_await waitForTermination(timeout, gracefulInterval);
    if (hasEnded) co_return;
    logger_.error("VM %{public}s 忽略了优雅关机请求,强制停止", name_);
    stopReason_ = VMStopReason::forced();
    if (connection_) co_await succeeds(connection_, "quit", quitTimeout);
    hardTerminate();
}

Task<bool> QEMUProcessSupervisor::waitForTermination(Duration limit, Duration interval) {
    return pollUntil(runtime_.clock, limit, interval, [this] { return isTerminated_; });
}

void QEMUProcessSupervisor::hardTerminate() {
    if (!child_) return;
    terminateThenKill(runtime_, child_->process(), seconds(stopKillDelay), [name = name_, logger = logger_] {
        logger.error("VM %{public}s 在 SIGTERM 后 %{public}f 秒仍未退出,发送 SIGKILL", name, stopKillDelay);
    });
}

}  // namespace dorvane

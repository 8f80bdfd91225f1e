// SPDX-License-Identifier: Apache-2.0
// The way from a launch description to a running machine.
#include "core/DorvaneError.h"
#include "qemu/ChildEnding.h"
#include "qemu/QEMUProcessSupervisor.h"
#include "qemu/QEMUStartupFailure.h"

namespace dorvane {
namespace {

constexpr auto qmpConnectTimeout = seconds(10.0);
constexpr auto exitWait = seconds(1.0);
constexpr auto exitInterval = milliseconds(50);
constexpr auto killDelay = 5.0;

bool isPathTooLong(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const QMPConnection::ConnectionError& failure) {
        return failure.which() == QMPConnection::ConnectionError::Case::socketPathTooLong;
    } catch (...) {
        return false;
    }
}

}  // namespace

Task<void> QEMUProcessSupervisor::start(QEMULaunch launch) {
    const auto self = shared_from_this();
    if (std::exchange(hasStarted_, true)) throw DorvaneError(DorvaneError::Case::vmAlreadyRunning, name_);
    updateStatus(VMStatus::starting);
    std::exception_ptr failure;
    try {
        co_await startEmulator(launch.paths);
        startChild(launch);
        co_await connect(launch.paths.qmpSocket.string());
        if (launch.restoringFrom) co_await restoreIncoming(*launch.restoringFrom);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await ignoreCancellation();
        co_await failStart(failure);
    }
    // An event may have told more already.
    if (status_ == VMStatus::starting) updateStatus(VMStatus::running);
    logger_.info("Launched QEMU VM %{public}s", name_);
}

Task<void> QEMUProcessSupervisor::startEmulator(QEMURuntimePaths paths) {
    std::exception_ptr failure;
    try {
        if (paths.swtpmSocket && !paths.swtpmExecutable)
            throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                               localized("Virtual TPM was requested but the swtpm binary is missing."));
        if (paths.swtpmSocket)
            co_await emulator_.start(*paths.swtpmExecutable, bundle_.directoryURL / "tpm",
                                     *paths.swtpmSocket);
    } catch (...) {
        failure = std::current_exception();
    }
    // A stop ends the emulator, which then looks like one that failed.
    if (didRequestStop_)
        throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                           localized("The VM was stopped while it was starting."));
    if (failure) std::rethrow_exception(failure);
}

void QEMUProcessSupervisor::startChild(const QEMULaunch& launch) {
    ProcessCommand command{.executable = launch.paths.executable,
                           .arguments = launch.arguments,
                           .environment = launch.environment};
    try {
        child_ = QEMUChild::start(runtime_, std::move(command));
    } catch (...) {
        throw DorvaneError(DorvaneError::Case::vmStartupFailed,
                           localizedDescription(std::current_exception()));
    }
    renderServer_ = launch.paths.renderServer;
    launchedAt_ = runtime_.clock.now();
    exitWatch_ = spawn(runtime_.main.executor(), watchExit(weak_from_this(), child_), "QEMU exit");
}

Task<void> QEMUProcessSupervisor::connect(std::string socketPath) {
    const auto connection = std::make_shared<QMPConnection>(runtime_);
    // Before connecting, so that not even the first event is missed.
    const auto token =
        connection->observeEvents([weak = weak_from_this(), &main = runtime_.main](const auto& message) {
            main.async([weak, message] {
                if (const auto self = weak.lock(); self && message.event()) self->handle(*message.event());
            });
        });
    std::function<bool()> isPeerAlive = [child = child_] { return child->isRunning(); };
    co_await connection->connect(std::move(socketPath), qmpConnectTimeout, std::move(isPeerAlive));
    // A stop or an end of the child meanwhile has not seen this connection.
    if (isTerminated_ || didRequestStop_) throw QMPConnection::ConnectionError::peerExited();
    connection_ = connection;
    eventToken_ = token;
}

Task<void> QEMUProcessSupervisor::failStart(std::exception_ptr error) {
    if (!child_) {
        emulator_.terminate();
        updateStatus(VMStatus::stopped);
        terminate();
        std::rethrow_exception(error);
    }
    const auto reason = co_await startupFailureReason(error);
    terminateThenKill(runtime_, child_->process(), seconds(killDelay), [name = name_, logger = logger_] {
        logger.error("VM %{public}s 启动失败后 %{public}f 秒仍未退出，发送 SIGKILL", name, killDelay);
    });
    emulator_.terminate();
    updateStatus(VMStatus::stopped);
    if (isCancellation(error)) std::rethrow_exception(error);
    throw DorvaneError(DorvaneError::Case::vmStartupFailed, reason);
}

Task<std::string> QEMUProcessSupervisor::startupFailureReason(std::exception_ptr error) {
    const auto child = child_;
    auto reason = localizedDescription(error);
    if (isPathTooLong(error) || isCancellation(error)) co_return reason;
    std::function<bool()> isGone = [child] { return !child->isRunning(); };
    const bool hasEnded = co_await pollUntil(runtime_.clock, exitWait, exitInterval, std::move(isGone));
    if (!hasEnded) co_return reason;
    const auto end = co_await child->waitForEnd();
    co_return QEMUStartupFailure::reason(end.status, end.stderrText);
}

}  // namespace dorvane

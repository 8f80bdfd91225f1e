// SPDX-License-Identifier: Apache-2.0
#include "qemu/QEMUProcessSupervisor.h"

#include "core/DorvaneError.h"
#include "qemu/QEMUStartupFailure.h"
#include "qemu/QMPStateMapper.h"

namespace dorvane {
namespace {

constexpr auto commandTimeout = seconds(10.0);
/// How long a guest may take to open its first context before its driver counts as not in use.
constexpr auto driverGrace = seconds(90.0);

JSON keyEvent(const std::string& qcode, bool down) {
    JSON key{{"type", "qcode"}, {"data", qcode}};
    JSON data{{"down", down}, {"key", key}};
    JSON event{{"type", "key"}, {"data", data}};
    return JSON{{"events", JSON::array({event})}};
}

}  // namespace

QEMUProcessSupervisor::QEMUProcessSupervisor(const Runtime& runtime, const Processes& processes, UUID id,
                                             DorvaneVMConfig config, VMBundle bundle)
    : runtime_(runtime),
      id_(id),
      name_(bundle.name()),
      config_(std::move(config)),
      bundle_(std::move(bundle)),
      emulator_(runtime, processes) {}

QEMUProcessSupervisor::~QEMUProcessSupervisor() {
    if (child_ && child_->isRunning()) child_->process()->terminate();
}

Task<void> QEMUProcessSupervisor::pause() {
    co_await requireConnection()->execute("stop", nullptr, commandTimeout);
}

Task<void> QEMUProcessSupervisor::resume() {
    co_await requireConnection()->execute("cont", nullptr, commandTimeout);
}

Task<void> QEMUProcessSupervisor::sendKey(std::string qcode) {
    const auto connection = requireConnection();
    for (const bool down : {true, false}) {
        auto arguments = keyEvent(qcode, down);
        co_await connection->execute("input-send-event", std::move(arguments), commandTimeout);
    }
}

std::optional<AcceleratedDriverStatus> QEMUProcessSupervisor::acceleratedDriverStatus(
    Instant now, const ContextCounter& probe) const {
    if (!renderServer_ || !launchedAt_ || !child_ || !child_->isRunning()) return std::nullopt;
    const auto contexts = probe(child_->pid(), *renderServer_);
    if (!contexts) return AcceleratedDriverStatus::unknown;
    if (*contexts >= 1) return AcceleratedDriverStatus::active;
    return now - *launchedAt_ >= driverGrace ? AcceleratedDriverStatus::notInUse
                                             : AcceleratedDriverStatus::unknown;
}

void QEMUProcessSupervisor::terminate() {
    if (std::exchange(isTerminated_, true)) return;
    if (connection_ && eventToken_) connection_->removeObserver(*eventToken_);
    eventToken_.reset();
    if (const auto connection = std::exchange(connection_, nullptr)) connection->closeNow();
    emulator_.terminate();
    statusSource_.finish();
}

Task<void> QEMUProcessSupervisor::watchExit(std::weak_ptr<QEMUProcessSupervisor> weak,
                                            std::shared_ptr<QEMUChild> child) {
    const auto end = co_await child->waitForEnd();
    if (const auto self = weak.lock()) self->handleProcessExit(end);
}

void QEMUProcessSupervisor::handleProcessExit(const QEMUChild::End& end) {
    if (!stopReason_)
        stopReason_ = end.status.isSuccess()
                          ? VMStopReason::guestInitiated()
                          : VMStopReason::failure(QEMUStartupFailure::exitReason(end.status, end.stderrText));
    if (!end.stderrText.empty()) logger_.error("QEMU stderr: %{public}s", end.stderrText);
    updateStatus(VMStatus::stopped);
    terminate();
}

void QEMUProcessSupervisor::handle(const QMPMessage::Event& event) {
    if (event.name == "STOP") {
        updateStatus(VMStatus::paused);
    } else if (event.name == "RESUME") {
        isMigrated_ = false;
        updateStatus(VMStatus::running);
    } else if (event.name == "SHUTDOWN") {
        if (!stopReason_) stopReason_ = QMPStateMapper::stopReason(event.data, didRequestStop_);
    } else if (event.name == "GUEST_PANICKED") {
        stopReason_ = VMStopReason::failure(localized("The guest operating system crashed."));
        updateStatus(VMStatus::error);
    } else if (event.name == QMPMessage::disconnectedEventName) {
        logger_.info("VM %{public}s 的 QMP 连接已断开", name_);
    }
}

void QEMUProcessSupervisor::updateStatus(VMStatus status) {
    if (std::exchange(status_, status) == status) return;
    logger_.info("VM %{public}s → %{public}s", name_, rawValue(status));
    statusSource_.yield(status);
}

std::shared_ptr<QMPConnection> QEMUProcessSupervisor::requireConnection() const {
    if (!connection_ || isTerminated_) throw DorvaneError(DorvaneError::Case::vmNotRunning, name_);
    return connection_;
}

Task<bool> QEMUProcessSupervisor::succeeds(std::shared_ptr<QMPConnection> connection, std::string command,
                                           Duration timeout, JSON arguments) {
    try {
        co_await connection->execute(std::move(command), std::move(arguments), timeout);
        co_return true;
    } catch (const std::exception&) {
    }
    co_return false;
}

}  // namespace dorvane

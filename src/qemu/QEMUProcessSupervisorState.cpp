// SPDX-License-Identifier: Apache-2.0
// Writing the machine's memory to a file and reading it back: a state file is either whole or gone.
#include "core/DorvaneError.h"
#include "qemu/QEMUMigration.h"
#include "qemu/QEMUProcessSupervisor.h"

namespace dorvane {
namespace {

constexpr auto migrateTimeout = seconds(30.0);
constexpr auto cancelTimeout = seconds(30.0);
constexpr auto shortTimeout = seconds(5.0);
constexpr auto cancelInterval = milliseconds(200);
constexpr auto restoreTimeout = seconds(900.0);
constexpr auto resumeTimeout = seconds(10.0);
constexpr auto rejectionWait = seconds(1.0);
constexpr auto rejectionInterval = milliseconds(50);

Path sidecar(const Path& state) { return {state.string() + ".devices"}; }

}  // namespace

Task<void> QEMUProcessSupervisor::saveState(Path to, Duration timeout) {
    const auto self = shared_from_this();
    const auto connection = requireConnection();
    if (status_ != VMStatus::paused) throw DorvaneError(DorvaneError::Case::vmNotRunning, name_);
    removeQuietly(to);
    std::exception_ptr failure;
    try {
        co_await leaveMigratedState(connection);
        co_await writeState(connection, to, timeout);
        if (suspendFingerprint_) writeFileAtomically(sidecar(to), suspendFingerprint_->serialized());
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    removeQuietly(to);
    removeQuietly(sidecar(to));
    rethrowAs(DorvaneError::Case::vmSnapshotFailed, failure);
}

/// A paused machine whose state has been saved refuses to save it again, and QEMU dies when its disks are
/// touched. For the moment between two commands the guest runs.
Task<void> QEMUProcessSupervisor::leaveMigratedState(std::shared_ptr<QMPConnection> connection) {
    if (!isMigrated_) co_return;
    std::exception_ptr failure;
    try {
        co_await connection->execute("cont", nullptr, resumeTimeout);
        co_await connection->execute("stop", nullptr, resumeTimeout);
        isMigrated_ = false;
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    // The guest may run by now, and its owner takes it for paused.
    co_await ignoreCancellation();
    co_await succeeds(connection, "stop", resumeTimeout);
    std::rethrow_exception(failure);
}

/// Returns or throws only when QEMU has let go of the file.
Task<void> QEMUProcessSupervisor::writeState(std::shared_ptr<QMPConnection> connection, Path to,
                                             Duration timeout) {
    std::exception_ptr failure;
    try {
        co_await QEMUMigration::begin(connection, to, migrateTimeout);
        std::function<bool()> isPeerGone = [weak = weak_from_this()] {
            const auto self = weak.lock();
            return !self || self->isTerminated();
        };
        co_await QEMUMigration::waitUntilCompleted(connection, runtime_.clock, timeout,
                                                   std::move(isPeerGone));
        isMigrated_ = true;
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    co_await ignoreCancellation();
    const auto state = co_await cancelMigrationIfRunning(connection, cancelTimeout);
    // It may have come to its end all the same, in the moment when nobody waited any more.
    isMigrated_ = state == "completed";
    std::rethrow_exception(failure);
}

Task<std::string> QEMUProcessSupervisor::cancelMigrationIfRunning(std::shared_ptr<QMPConnection> connection,
                                                                  Duration timeout) {
    if (isTerminated_) co_return std::string();
    // An answer that doesn't come counts as a migration that still runs.
    auto status = [](std::shared_ptr<QMPConnection> over) -> Task<std::string> {
        try {
            auto known = co_await QEMUMigration::status(over, shortTimeout);
            co_return known;
        } catch (const std::exception&) {
        }
        co_return std::string();
    };
    auto state = co_await status(connection);
    if (QEMUMigration::isSettled(state)) co_return state;
    co_await succeeds(connection, "migrate_cancel", shortTimeout);
    const auto deadline = runtime_.clock.now() + timeout;
    while (!isTerminated_ && runtime_.clock.now() < deadline) {
        state = co_await status(connection);
        if (QEMUMigration::isSettled(state)) {
            logger_.info("迁移已停下(%{public}s): %{public}s", state, name_);
            co_return state;
        }
        co_await runtime_.clock.sleep(cancelInterval);
    }
    if (!isTerminated_)
        logger_.error("迁移取消后 %{public}f 秒仍未停下: %{public}s",
                      std::chrono::duration<double>(timeout).count(), name_);
    co_return state;
}

Task<void> QEMUProcessSupervisor::restoreIncoming(Path from) {
    restoreRejectedState_ = false;
    const auto connection = connection_;
    auto arguments = QEMUMigration::channelArguments(from);
    co_await connection->execute("migrate-incoming", std::move(arguments), migrateTimeout);
    std::exception_ptr failure;
    try {
        std::function<bool()> isPeerGone = [child = child_] { return !child->isRunning(); };
        co_await QEMUMigration::waitUntilCompleted(connection, runtime_.clock, restoreTimeout,
                                                   std::move(isPeerGone));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        co_await ignoreCancellation();
        const bool isBad = co_await failureMeansBadState();
        restoreRejectedState_ = isBad && !isCancellation(failure);
        std::rethrow_exception(failure);
    }
    co_await connection->execute("cont", nullptr, resumeTimeout);
}

/// A stop by the user says nothing about the file; a child that has ended, or a failed load, does.
Task<bool> QEMUProcessSupervisor::failureMeansBadState() {
    const auto connection = connection_;
    std::function<bool()> isGone = [child = child_] { return !child->isRunning(); };
    const bool hasEnded =
        co_await pollUntil(runtime_.clock, rejectionWait, rejectionInterval, std::move(isGone));
    if (didRequestStop_) co_return false;
    if (hasEnded) co_return true;
    try {
        const auto state = co_await QEMUMigration::status(connection, shortTimeout);
        co_return state == "failed";
    } catch (const std::exception&) {
    }
    co_return false;
}

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// One QEMU child and everything that lives and dies with it.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "core/VMEngineProtocol.h"
#include "qemu/QEMUChild.h"
#include "qemu/QEMULaunch.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "qemu/QEMUSuspendFingerprint.h"
#include "qemu/QMPConnection.h"
#include "qemu/TPMEmulator.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// Main thread only; made as a shared_ptr. Used for one launch: after `isTerminated` it only answers
/// questions.
///
///   stopped -> starting   start begins             running -> paused   QEMU's STOP
///   starting -> running   QMP up, state restored   paused -> running   QEMU's RESUME
///   starting -> stopped   any failure in start     any -> error        the guest panicked
///                                                  any -> stopped      the child has ended
class QEMUProcessSupervisor : public std::enable_shared_from_this<QEMUProcessSupervisor> {
  public:
    using ContextCounter = std::function<std::optional<int>(int qemuPID, const Path& renderServer)>;

    QEMUProcessSupervisor(const Runtime& runtime, const Processes& processes, UUID id, DorvaneVMConfig config,
                          VMBundle bundle);
    /// Ends a child that still runs.
    ~QEMUProcessSupervisor();

    const UUID& id() const { return id_; }
    const std::string& name() const { return name_; }
    const DorvaneVMConfig& config() const { return config_; }
    const VMBundle& bundle() const { return bundle_; }
    VMStatus status() const { return status_; }
    /// The first cause in automatic paths; a stop overwrites it.
    const std::optional<VMStopReason>& stopReason() const { return stopReason_; }
    bool isTerminated() const { return isTerminated_; }
    bool didRequestStop() const { return didRequestStop_; }
    /// Whether the last restore failed because the state itself is unusable.
    bool restoreRejectedState() const { return restoreRejectedState_; }

    /// Set by the engine before the machine can be suspended.
    void setSuspendFingerprint(QEMUSuspendFingerprint fingerprint) {
        suspendFingerprint_ = std::move(fingerprint);
    }
    void setRuntimeDirectory(QEMURuntimeDirectory directory) { runtimeDirectory_ = std::move(directory); }

    /// Returns when the machine runs. Every other way out leaves status `stopped`, no emulator of a TPM, and
    /// the child either gone or under a kill timer. Throws vmAlreadyRunning, vmStartupFailed, POSIXError.
    Task<void> start(QEMULaunch launch);
    /// Never throws and can't be cancelled. Gentle: asks the guest and waits; hard: waits up to 8 s for the
    /// end.
    Task<void> stop(bool force, Duration gracefulTimeout);
    /// These throw vmNotRunning and what QMP gives.
    Task<void> pause();
    Task<void> resume();
    /// Presses and releases a key, named by QEMU's qcode.
    Task<void> sendKey(std::string qcode);
    /// The present status, then each change; ends when the child has ended.
    AsyncStream<VMStatus> statusUpdates() { return statusSource_.subscribe(status_); }
    /// Absent when this launch has no render server or the child doesn't run.
    std::optional<AcceleratedDriverStatus> acceleratedDriverStatus(Instant now,
                                                                   const ContextCounter& probe) const;

    /// Writes a paused machine's memory to a file, with its fingerprint beside it. On failure neither is left
    /// and the machine stays paused. Throws vmNotRunning, vmSnapshotFailed.
    Task<void> saveState(Path to, Duration timeout);

    /// Puts `overlay` on top of the system disk; it stands where the top layer stood, which the caller has
    /// just moved to `movedPreviousLayerTo`. On failure the disk stays on the old layer, which the caller
    /// moves back. Can't be cancelled. Throws vmNotRunning, vmSnapshotFailed.
    Task<void> attachSystemDiskOverlay(Path overlay, Path movedPreviousLayerTo,
                                       std::optional<SnapshotParentRewrite> parentRewrite);

    /// Ends the connection, the TPM's emulator and the status streams; once.
    void terminate();

  private:
    Task<void> startEmulator(QEMURuntimePaths paths);
    void startChild(const QEMULaunch& launch);
    Task<void> connect(std::string socketPath);
    Task<void> restoreIncoming(Path from);
    Task<bool> failureMeansBadState();
    Task<void> failStart(std::exception_ptr error);
    Task<std::string> startupFailureReason(std::exception_ptr error);
    static Task<void> watchExit(std::weak_ptr<QEMUProcessSupervisor> weak, std::shared_ptr<QEMUChild> child);
    void handleProcessExit(const QEMUChild::End& end);
    void handle(const QMPMessage::Event& event);
    void updateStatus(VMStatus status);

    Task<void> stopWithoutConnection();
    Task<void> stopByForce();
    Task<void> stopGracefully(Duration timeout);
    Task<bool> waitForTermination(Duration limit, Duration interval);
    void hardTerminate();

    /// Throws vmNotRunning.
    std::shared_ptr<QMPConnection> requireConnection() const;
    /// Whether the command was answered without an error.
    static Task<bool> succeeds(std::shared_ptr<QMPConnection> connection, std::string command,
                               Duration timeout, JSON arguments = nullptr);
    Task<void> writeState(std::shared_ptr<QMPConnection> connection, Path to, Duration timeout);
    Task<void> leaveMigratedState(std::shared_ptr<QMPConnection> connection);
    /// The migration's last known status; empty when that can't be told.
    Task<std::string> cancelMigrationIfRunning(std::shared_ptr<QMPConnection> connection, Duration timeout);

    struct OverlaySwitch;
    void prepareLinks(OverlaySwitch& change) const;
    static Task<void> switchToOverlay(std::shared_ptr<QMPConnection> connection, OverlaySwitch* change);
    static Task<void> rollBackOverlay(std::shared_ptr<QMPConnection> connection, OverlaySwitch* change);
    /// Absent when it can't be told.
    static Task<std::optional<std::string>> querySystemDiskTopNode(std::shared_ptr<QMPConnection> connection);

    const Runtime& runtime_;
    const UUID id_;
    const std::string name_;
    const DorvaneVMConfig config_;
    const VMBundle bundle_;
    Logger logger_{"QEMUProcessSupervisor"};

    VMStatus status_ = VMStatus::stopped;
    std::optional<VMStopReason> stopReason_;
    bool hasStarted_ = false;
    bool isTerminated_ = false;
    bool didRequestStop_ = false;
    bool restoreRejectedState_ = false;
    std::optional<QEMUSuspendFingerprint> suspendFingerprint_;
    /// Present when QEMU opens the system disk through its numbered links.
    std::optional<QEMURuntimeDirectory> runtimeDirectory_;
    std::string systemDiskTopNode_ = "sysroot";
    int systemDiskLinkIndex_ = 0;
    /// QEMU has handed its disks over with a saved state and hasn't run since.
    bool isMigrated_ = false;

    std::shared_ptr<QEMUChild> child_;
    TPMEmulator emulator_;
    std::optional<Path> renderServer_;
    std::optional<Instant> launchedAt_;
    std::shared_ptr<QMPConnection> connection_;
    std::optional<UUID> eventToken_;
    StreamSource<VMStatus> statusSource_;
    TaskHandle exitWatch_;
};

}  // namespace dorvane

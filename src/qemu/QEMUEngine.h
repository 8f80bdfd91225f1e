// SPDX-License-Identifier: Apache-2.0
// The engine whose machines run in QEMU children: the Windows guests.
#pragma once

#include <map>
#include <set>

#include "core/VMEngineProtocol.h"
#include "qemu/QEMULaunchPreparation.h"
#include "qemu/QEMUProcessSupervisor.h"

namespace dorvane {

/// Main thread only. Operations in flight must have ended before it goes; `shutdownAll` ends the machines,
/// and whatever is launched from then on fails with vmStartupFailed.
class QEMUEngine : public VMEngineProtocol {
  public:
    explicit QEMUEngine(QEMUEngineContext context);

    Task<void> launch(UUID id, VMBundle bundle, VMAttachments attachments) override;
    Task<void> stop(UUID id, bool force) override;
    Task<void> pause(UUID id) override;
    Task<void> resume(UUID id) override;
    Task<void> saveState(UUID id, Path to) override;
    bool canSaveStateNow(VMOSType) const override { return true; }
    Task<void> attachSystemDiskOverlay(UUID id, Path overlay, Path movedPreviousLayerTo,
                                       std::optional<SnapshotParentRewrite> parentRewrite) override;
    std::optional<VMStatus> status(const UUID& id) const override;
    std::optional<AsyncStream<VMStatus>> statusUpdates(const UUID& id) override;
    std::optional<VMStopReason> stopReason(const UUID& id) const override;
    std::optional<std::string> macAddress(const UUID& id) const override;
    Task<std::shared_ptr<GuestAgentChannel>> connectToGuestAgent(UUID id) override;
    std::optional<GuestDisplayHandle> displayHandle(const UUID& id) override;
    std::vector<UUID> runningVMIDs() const override;
    bool hasRunningVMs() const override { return !runningVMIDs().empty(); }
    Task<void> shutdownAll(Duration timeout) override;
    /// Ends the emulator that an earlier process may have left on a machine's disk; it has none in this one.
    Task<void> endLeftoverEmulator(UUID id);

  private:
    using SupervisorPointer = std::shared_ptr<QEMUProcessSupervisor>;

    Task<void> launchUnguarded(UUID id, VMBundle bundle, VMAttachments attachments);
    Task<QEMULaunchPlan> makePlan(QEMULaunchInputs inputs);
    Task<void> waitForStoppedChild(SupervisorPointer known);
    Task<void> waitForEndingChild(UUID id);
    void throwIfAbandoned(const UUID& id);
    Task<void> didStart(UUID id, SupervisorPointer supervisor, QEMULaunchPlan plan, bool hasInstaller);
    Task<void> didFailToStart(UUID id, SupervisorPointer supervisor, bool wasRestoring,
                              std::exception_ptr error, VMAttachments attachments);
    void watchForTermination(const UUID& id, const SupervisorPointer& supervisor);
    static Task<void> watch(QEMUEngine* engine, std::weak_ptr<void> life, UUID id,
                            SupervisorPointer supervisor);
    void didEnd(const UUID& id, const SupervisorPointer& supervisor);
    void cleanUpRuntime(const UUID& id);
    void noteGuestToolsCurrent(const UUID& id);
    void keep(TaskHandle task);

    SupervisorPointer find(const UUID& id) const;
    /// Throws vmNotRunning.
    SupervisorPointer require(const UUID& id) const;
    std::vector<SupervisorPointer> liveSupervisors() const;

    const QEMUEngineContext context_;
    const Runtime& runtime_;
    QEMULaunchPreparation preparation_;
    std::map<UUID, SupervisorPointer> supervisors_;
    /// Failed to start, and their children may still run for some seconds.
    std::vector<SupervisorPointer> ending_;
    std::map<UUID, VMStopReason> lastStopReasons_;
    std::map<UUID, QEMURuntimeDirectory> runtimeDirectories_;
    /// VMs between `launch` and its end, and those of them that were stopped before they had a child.
    std::set<UUID> launchingIDs_;
    std::set<UUID> abandonedIDs_;
    bool isShuttingDown_ = false;
    std::vector<TaskHandle> tasks_;
    std::shared_ptr<void> life_ = std::make_shared<int>(0);
    Subscription guestToolsSubscription_;
    Logger logger_{"QEMUEngine"};
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The single owner of the list of machines, and every operation on them.
#pragma once

#include "core/VMServiceCollaborators.h"
#include "core/VMServiceProtocol.h"

namespace dorvane {

/// Main thread only; one object a process. It only joins its parts, each of which stands in a file of its
/// own:
///
///   VMLibrary            the published list and the store behind it
///   VMAccess             access to the paths that the user chose
///   InstallerBootFlow    the installer image, until the guest has installed itself
///   VMStatusWatcher      the records' status, true to the engine
///   VMRunControl         start, stop, restart, pause, resume
///   VMSuspender          suspend to disk
///   VMLibraryRefresher   records and bundles in step
///   VMCreator, VMCloner, VMReconfigurer, VMDeleter
///   VMInspector          questions that change nothing
///
/// It outlives the operations that were begun on it; what it began itself ends with it.
class VMService : public VMServiceProtocol {
  public:
    explicit VMService(VMServiceCollaborators collaborators);
    ~VMService() override;

    const std::vector<VMRecordPointer>& vms() const override;
    /// Publishes what the store holds. Throws the store's error.
    void syncVMsFromPersistence();

    Task<void> refreshVMList() override;
    Task<VMRecordPointer> createVM(std::string name, VMOSType os, VMConfiguration configuration) override;
    Task<VMRecordPointer> cloneVM(VMRecordPointer vm, std::string newName) override;
    Task<void> renameVM(VMRecordPointer vm, std::string name) override;
    Task<void> updateVMConfiguration(VMRecordPointer vm, VMConfiguration configuration) override;
    Task<void> deleteVM(VMRecordPointer vm, bool permanently) override;
    Task<void> completeInstallation(VMRecordPointer vm) override;

    Task<void> startVM(VMRecordPointer vm) override;
    Task<void> stopVM(VMRecordPointer vm, bool force) override;
    Task<void> restartVM(VMRecordPointer vm) override;
    Task<void> pauseVM(VMRecordPointer vm) override;
    Task<void> resumeVM(VMRecordPointer vm) override;
    Task<void> suspendVM(VMRecordPointer vm) override;
    Task<void> discardSuspendedState(VMRecordPointer vm) override;
    Task<void> refreshVMState(VMRecordPointer vm) override;
    /// Between a start's request and its outcome.
    bool isStarting(const UUID& vmID) const;

    std::optional<std::string> lastFailureReason(const VMRecord& vm) const override;
    bool lastStopWasForced(const VMRecord& vm) const override;
    Task<std::optional<VMDisplayInfo>> getVMDisplayInfo(VMRecordPointer vm) override;
    Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) override;
    Task<std::optional<Bytes>> captureHostFramebuffer(VMRecordPointer vm) override;
    Task<std::string> getVMLogs(VMRecordPointer vm) override;

    /// How far the macOS installation in progress has come; absent when there is none.
    const std::optional<MacOSInstallPhase>& macOSInstallPhase() const;
    Signal<> macOSInstallPhaseChanged;

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
    Subscription listSubscription_;
    Subscription phaseSubscription_;
};

}  // namespace dorvane

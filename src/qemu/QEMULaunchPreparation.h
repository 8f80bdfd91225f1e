// SPDX-License-Identifier: Apache-2.0
// From a launch request to what the supervisor starts.
#pragma once

#include "qemu/QEMUEngineContext.h"
#include "qemu/QEMUEngineDigestCache.h"
#include "qemu/QEMUGuestSSH.h"
#include "qemu/QEMULaunch.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "qemu/QEMUSharedFolders.h"

namespace dorvane {

/// One launch request with what it stands on.
struct QEMULaunchInputs {
    UUID id;
    VMBundle bundle;
    VMAttachments attachments;
    DorvaneVMConfig config;
    QEMURuntimeResources resources;

    bool hasInstaller() const { return attachments.installerImagePath.has_value(); }
};

struct QEMULaunchPlan {
    /// As launched: with the ports that this launch got.
    DorvaneVMConfig config;
    /// As it stood in its file before; a suspended state belongs to this one.
    DorvaneVMConfig described;
    QEMULaunch launch;
    /// Digest of the arguments; with the engine's it guards a suspended state.
    std::string devicesDigest;
    QEMUEngineDigestCache::Digest engineDigest;
};

/// Main thread only.
class QEMULaunchPreparation {
  public:
    explicit QEMULaunchPreparation(const QEMUEngineContext& context);

    /// Reads the machine's description and finds the resources; makes nothing yet. Throws what reading the
    /// description gives, and vmStartupFailed.
    QEMULaunchInputs readInputs(UUID id, VMBundle bundle, VMAttachments attachments) const;
    /// Lays everything out in the runtime directory. Throws vmStartupFailed, suspendedStateHardwareChanged,
    /// FileError or what a tool gives; the caller then removes the directory and calls `release`.
    Task<QEMULaunchPlan> prepare(QEMULaunchInputs inputs, QEMURuntimeDirectory directory);
    /// Removes a state that was used or is of no use, then writes down what the launch chose meanwhile.
    void dropSavedState(const QEMULaunchPlan& plan, const VMBundle& bundle) const;
    /// Gives back the ports and the file server of a VM.
    void release(const UUID& id);
    void releaseAll() { sharedFolders_.stopAll(); }

  private:
    bool isAccelerated(const QEMULaunchInputs& inputs) const;
    std::optional<Path> requireTPM(const QEMULaunchInputs& inputs) const;
    Task<void> prepareNVRAM(QEMURuntimeResources resources, VMBundle bundle) const;
    QEMURuntimePaths makePaths(const QEMULaunchInputs& inputs, const QEMURuntimeDirectory& directory) const;
    void addDiagnostics(QEMURuntimePaths& paths, const QEMURuntimeDirectory& directory) const;
    Task<std::vector<std::string>> adapted(std::vector<std::string> arguments,
                                           QEMURuntimeResources resources) const;
    /// Decides what becomes of a suspended state, and makes the launch load it when it fits.
    Task<void> decideOnSavedState(QEMULaunchPlan& plan, VMBundle bundle) const;

    const QEMUEngineContext& context_;
    QEMUSharedFolders sharedFolders_;
    QEMUGuestSSH guestSSH_;
    QEMUEngineDigestCache digests_;
    Logger logger_{"QEMUEngine"};
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Starting, stopping, pausing and resuming machines.
#pragma once

#include "core/InstallerBootFlow.h"
#include "core/VMAttachmentsBuilder.h"
#include "core/VMStatusWatcher.h"

namespace dorvane {

/// Main thread only. Every operation tests the gate and takes no place in it. Throws vmBusy,
/// vmAlreadyRunning, vmNotRunning, invalidConfiguration, vmStartupFailed, or the engine's own error.
class VMRunControl {
  public:
    VMRunControl(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
                 InstallerBootFlow& flow, VMStatusWatcher& watcher)
        : with_(with),
          library_(library),
          access_(access),
          flow_(flow),
          watcher_(watcher),
          attachmentsBuilder_(with.agentPayload) {}

    Task<void> start(VMRecordPointer vm);
    Task<void> stop(VMRecordPointer vm, bool force);
    Task<void> restart(VMRecordPointer vm);
    Task<void> pause(VMRecordPointer vm);
    Task<void> resume(VMRecordPointer vm);
    /// Takes over the engine's status; a machine that no engine knows is stopped.
    void refreshState(VMRecord& vm);

    /// Between a start's request and its outcome; the record says "stopped" or "error" meanwhile.
    bool isStarting(const UUID& vmID) const { return starting_.contains(vmID); }
    /// The machine is down and nobody is bringing it up.
    bool isShutDown(const VMRecord& vm) const { return vm.isShutDownForEditing() && !isStarting(vm.id); }

  private:
    struct Plan {
        VMAttachments attachments;
        bool resumesSavedState = false;
    };
    using EngineOperation = Task<void> (VMEngineProtocol::*)(UUID);

    void requireStartable(const VMRecord& vm) const;
    Task<Plan> prepare(VMRecordPointer vm);
    void noteFailedStart(VMRecord& vm);
    void noteStart(VMRecord& vm);
    Task<void> change(VMRecordPointer vm, VMStatus from, EngineOperation operation, VMStatus to,
                      const char* logText);
    void scheduleGuestClockSync(const VMRecordPointer& vm);
    Date now() const { return with_.runtime.clock.date(); }

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    InstallerBootFlow& flow_;
    VMStatusWatcher& watcher_;
    VMAttachmentsBuilder attachmentsBuilder_;
    std::set<UUID> starting_;
    std::map<UUID, TaskHandle> clockSyncs_;
    /// What a clock task holds weakly, so that it finds out when this object has gone.
    std::shared_ptr<const bool> lifetime_ = std::make_shared<const bool>(true);
};

}  // namespace dorvane

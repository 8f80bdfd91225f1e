// SPDX-License-Identifier: Apache-2.0
// Picks the engine of each machine by its guest family and remembers it.
#pragma once

#include <map>

#include "core/VMEngineProtocol.h"
#include "runtime/Runtime.h"

namespace dorvane {

/// Main thread only. The engines outlive it; a host may lack either of them.
class EngineRouter : public VMEngineProtocol {
  public:
    /// `virtualization` runs macOS and Linux guests, `qemu` runs Windows guests; null for one that isn't
    /// there.
    EngineRouter(const Runtime& runtime, VMEngineProtocol* virtualization, VMEngineProtocol* qemu);

    Task<void> launch(UUID id, VMBundle bundle, VMAttachments attachments) override;
    Task<void> stop(UUID id, bool force) override;
    Task<void> pause(UUID id) override;
    Task<void> resume(UUID id) override;
    Task<void> saveState(UUID id, Path to) override;
    /// True for a family without an engine: the operation itself then says why it can't be done.
    bool canSaveStateNow(VMOSType os) const override;
    Task<void> attachSystemDiskOverlay(UUID id, Path overlay, Path movedPreviousLayerTo,
                                       std::optional<SnapshotParentRewrite> parentRewrite) override;
    std::optional<VMStatus> status(const UUID& id) const override;
    std::optional<AsyncStream<VMStatus>> statusUpdates(const UUID& id) override;
    std::optional<VMStopReason> stopReason(const UUID& id) const override;
    std::optional<std::string> macAddress(const UUID& id) const override;
    Task<std::shared_ptr<GuestAgentChannel>> connectToGuestAgent(UUID id) override;
    std::optional<GuestDisplayHandle> displayHandle(const UUID& id) override;
    std::vector<UUID> runningVMIDs() const override;
    bool hasRunningVMs() const override;
    /// One engine after the other, each with the whole timeout.
    Task<void> shutdownAll(Duration timeout) override;

  private:
    VMEngineProtocol* engineFor(VMOSType os) const;
    VMEngineProtocol& requireEngineFor(VMOSType os) const;
    /// The route, else the first engine that knows the machine, which becomes its route: a machine may have
    /// been launched past the router.
    VMEngineProtocol* engineRunning(const UUID& id) const;
    VMEngineProtocol& requireEngineRunning(const UUID& id) const;

    const Runtime& runtime_;
    VMEngineProtocol* virtualization_;
    VMEngineProtocol* qemu_;
    /// In the order of every search.
    std::vector<VMEngineProtocol*> allEngines_;
    /// Stays after a stop, since a machine never changes its engine.
    mutable std::map<UUID, VMEngineProtocol*> routes_;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Keeps the records' status true to the engine.
#pragma once

#include <map>

#include "core/InstallerBootFlow.h"
#include "core/VMAccess.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// Main thread only. Held by one shared pointer: a task that outlives the service finds it gone and ends.
class VMStatusWatcher : public std::enable_shared_from_this<VMStatusWatcher> {
  public:
    VMStatusWatcher(const VMServiceCollaborators& with, VMLibrary& library, VMAccess& access,
                    InstallerBootFlow& flow)
        : with_(with), library_(library), access_(access), flow_(flow) {}

    /// Follows the engine's stream for this machine; the stream's end sets "stopped", and so does an engine
    /// that knows the machine no more. There is one watcher a machine: an earlier one is forgotten first.
    void watch(const UUID& vmID);
    /// Nothing that the present watcher still has to tell reaches the record any more.
    void forget(const UUID& vmID) { watchers_.erase(vmID); }

  private:
    struct Watcher {
        std::uint64_t number;
        TaskHandle task;
    };

    // The tasks hold the watcher only between their suspensions.
    static Task<void> follow(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                             std::optional<AsyncStream<VMStatus>> stream);
    static Task<void> apply(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                            VMStatus status);
    /// Null when the service has gone, or when this watcher was forgotten: what was on its way to it then
    /// belongs to an earlier run of the machine.
    static std::shared_ptr<VMStatusWatcher> current(const std::weak_ptr<VMStatusWatcher>& weak,
                                                    const UUID& vmID, std::uint64_t number);
    VMRecordPointer takeOver(VMStatus status, const UUID& vmID);
    void keep(VMRecord& vm, bool showsInstalledSystem);

    const VMServiceCollaborators& with_;
    VMLibrary& library_;
    VMAccess& access_;
    InstallerBootFlow& flow_;
    std::map<UUID, Watcher> watchers_;
    std::uint64_t nextNumber_ = 0;
};

}  // namespace dorvane

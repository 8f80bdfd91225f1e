// SPDX-License-Identifier: Apache-2.0
// Keeps the records' status true to the engine.
#pragma once

#include <map>

#include "core/InstallerBootFlow.h"
#include "core/VMAccess.h"
#include "runtime/TaskHandle.h"

namespace dorvane {

/// Main thread only. Held by shared pointer: a task that outlives the service finds it gone and ends.
class VMStatusWatcher : public std::enable_shared_from_this<VMStatusWatcher> {
  public:
    VMStatusWatcher(const VMServiceCollaborators& with, std::shared_ptr<VMLibrary> library,
                    std::shared_ptr<VMAccess> access, std::shared_ptr<InstallerBootFlow> installerFlow)
        : with_(with), library_(std::move(library)), access_(std::move(access)), flow_(std::move(installerFlow)) {}

    /// Follows the engine's stream for this machine; the stream's end sets "stopped". There is one watcher a
    /// machine: an earlier one is forgotten first.
    void watch(const UUID& vmID);
    /// Nothing that the present watcher still has to tell reaches the record any more.
    void forget(const UUID& vmID) { watchers_.erase(vmID); }
    bool isWatching(const UUID& vmID) const { return watchers_.contains(vmID); }

    /// Moves the record to what the engine reports; a record that is gone is passed over.
    Task<void> apply(VMStatus status, UUID vmID);

  private:
    struct Watcher {
        std::uint64_t number;
        TaskHandle task;
    };

    static Task<void> follow(std::weak_ptr<VMStatusWatcher> weak, UUID vmID, std::uint64_t number,
                             AsyncStream<VMStatus> stream);
    bool isCurrent(const UUID& vmID, std::uint64_t number) const;

    const VMServiceCollaborators& with_;
    std::shared_ptr<VMLibrary> library_;
    std::shared_ptr<VMAccess> access_;
    std::shared_ptr<InstallerBootFlow> flow_;
    std::map<UUID, Watcher> watchers_;
    std::uint64_t nextNumber_ = 0;
};

}  // namespace dorvane

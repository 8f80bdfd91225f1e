// SPDX-License-Identifier: Apache-2.0
// The shared folders of the running Windows guests: what is shared, and the server behind it.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "core/VMEngineProtocol.h"
#include "qemu/GuestFileServerRegistry.h"
#include "qemu/GuestFileServing.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "runtime/Logger.h"

namespace dorvane {

/// Main thread only.
class QEMUSharedFolders {
  public:
    struct ShareList {
        std::vector<GuestFileShare> shares;
        std::vector<std::string> skipped;  // names that Windows can't take or that come twice
    };

    QEMUSharedFolders(GuestFileServerFactory makeServer, GuestFileServerRegistry& registry)
        : makeServer_(std::move(makeServer)), registry_(registry) {}

    static ShareList shareList(const std::vector<SharedFolder>& folders);

    /// Starts the server for a launch and writes the guest's script. A port or a secret that the machine
    /// didn't have yet is put into `config` and, unless a suspended state waits, its file. A failure is
    /// logged and published; only a cancellation is thrown.
    Task<void> prepare(UUID id, DorvaneVMConfig& config, VMBundle bundle, std::vector<SharedFolder> folders,
                       QEMURuntimeDirectory directory);
    void stop(const UUID& id);
    void stopAll();

  private:
    Task<void> publish(UUID id, DorvaneVMConfig& config, VMBundle bundle, std::vector<SharedFolder> folders,
                       QEMURuntimeDirectory directory);
    Task<int> startServer(UUID id, WindowsSharesConfig settings, std::vector<GuestFileShare> shares);
    void writeGuestScript(const QEMURuntimeDirectory& directory, int port, const std::string& token) const;
    void fail(const UUID& id, std::string message);

    GuestFileServerFactory makeServer_;
    GuestFileServerRegistry& registry_;
    std::map<UUID, std::shared_ptr<GuestFileServing>> servers_;
    Logger logger_{"QEMUSharedFolders"};
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// The loopback ports that lead to the guests' SSH servers, and the keys for them.
#pragma once

#include <map>

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "qemu/GuestKeyStore.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "runtime/FileDescriptor.h"

namespace dorvane {

/// Main thread only.
class QEMUGuestSSH {
  public:
    explicit QEMUGuestSSH(const GuestKeyStore& keyStore) : keyStore_(keyStore) {}

    /// Reserves a port for a launch and writes the guest's key script; absent when SSH is off or can't be
    /// had. A new or another port is put into `config` and, unless a suspended state waits, its file. A
    /// failure is logged; only a cancellation is thrown.
    Task<std::optional<int>> prepare(UUID id, DorvaneVMConfig& config, VMBundle bundle,
                                     QEMURuntimeDirectory directory);
    void release(const UUID& id) { reservedPorts_.erase(id); }

  private:
    std::optional<int> reservePort(const UUID& id, DorvaneVMConfig& config, const VMBundle& bundle);

    const GuestKeyStore& keyStore_;
    /// What keeps each port from all other launches, those of other programs too, until its machine has
    /// ended.
    std::map<UUID, FileDescriptor> reservedPorts_;
    Logger logger_{"QEMUGuestSSH"};
};

}  // namespace dorvane

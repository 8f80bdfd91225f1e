// SPDX-License-Identifier: Apache-2.0
// A QEMU that an earlier session, crashed or killed, left running on a VM's runtime directory.
#pragma once

#include "platform/Processes.h"
#include "qemu/QEMURuntimeDirectory.h"
#include "qemu/UnixSocketPeer.h"
#include "runtime/Logger.h"
#include "runtime/Runtime.h"

namespace dorvane {

class QEMUStaleInstance {
  public:
    QEMUStaleInstance(const Runtime& runtime, const Processes& processes)
        : runtime_(runtime), processes_(processes) {}

    /// Stops it, by QMP or else by its process id, and removes its sockets. A listener that isn't known to be
    /// a QEMU is left alone, but loses the socket's name.
    Task<void> clear(QEMURuntimeDirectory directory) const;

  private:
    /// Whether its socket has gone.
    Task<bool> stopOverQMP(Path socket) const;
    Task<void> stopByPID(Path socket, UnixSocketPeer::Probe listener) const;

    const Runtime& runtime_;
    const Processes& processes_;
    Logger logger_{"QEMUStaleInstance"};
};

}  // namespace dorvane

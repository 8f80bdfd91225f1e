// SPDX-License-Identifier: Apache-2.0
// What can be told about a machine without changing it.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMDisplayInfo.h"
#include "core/VMServiceCollaborators.h"

namespace dorvane {

/// Main thread only.
class VMInspector {
  public:
    explicit VMInspector(const VMServiceCollaborators& with) : with_(with) {}

    std::optional<std::string> lastFailureReason(const VMRecord& vm) const;
    bool lastStopWasForced(const VMRecord& vm) const;
    /// Absent when the machine doesn't run.
    Task<std::optional<VMDisplayInfo>> displayInfo(VMRecordPointer vm) const;
    /// The loopback port behind which a Windows guest's SSH server stands.
    Task<std::optional<int>> sshForwardedPort(VMRecordPointer vm) const;
    /// A PNG; absent when there is no screen. Throws when this build can't take it, or no frame comes.
    Task<std::optional<Bytes>> captureFramebuffer(VMRecordPointer vm) const;
    /// The log's lines about the machine and the end of the guest's console.
    Task<std::string> logs(VMRecordPointer vm) const;

  private:
    const VMServiceCollaborators& with_;
};

/// Pure.
NetworkSummary networkSummary(const DorvaneVMConfig& config, const std::vector<NetworkInterface>& interfaces);

}  // namespace dorvane

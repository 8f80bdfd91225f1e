// SPDX-License-Identifier: Apache-2.0
// Facts about a Linux host.
#pragma once

#include "platform/HostSystem.h"

namespace dorvane {

class LinuxHostSystem : public HostSystem {
  public:
    /// The kernel's: "6.1.0-18-amd64" is 6.1.0.
    OperatingSystemVersion version() const override;
    /// Cores that this process may use.
    int coreCount() const override;
    std::uint64_t memoryBytes() const override;
    std::string userName() const override;
    /// Always: without hardware acceleration QEMU emulates the guest's processor, which works on every host.
    bool isVirtualizationSupported() const override { return true; }
    /// Ethernet-like interfaces other than the loopback one, by name.
    std::vector<NetworkInterface> networkInterfaces() const override;
    std::string randomMACAddress() const override;
    Bytes newMacMachineIdentifier() const override;
    Bytes newGenericMachineIdentifier() const override;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Facts about the machine that Dorvane runs on, and identities that its platform makes.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Bytes.h"

namespace dorvane {

struct OperatingSystemVersion {
    int major = 0, minor = 0, patch = 0;
    auto operator<=>(const OperatingSystemVersion&) const = default;
    std::string text() const {
        return std::to_string(major) + "." + std::to_string(minor) +
               (patch > 0 ? "." + std::to_string(patch) : "");
    }
};

struct NetworkInterface {
    std::string identifier;
    bool isWireless = false;
};

/// Safe on any thread.
class HostSystem {
  public:
    virtual ~HostSystem() = default;

    virtual OperatingSystemVersion version() const = 0;
    virtual int coreCount() const = 0;
    virtual std::uint64_t memoryBytes() const = 0;
    virtual std::string userName() const = 0;
    /// Whether the host can run guests at all (`VZVirtualMachine.isSupported`).
    virtual bool isVirtualizationSupported() const = 0;
    virtual std::vector<NetworkInterface> networkInterfaces() const = 0;

    /// `VZMACAddress.randomLocallyAdministeredAddress` in its text form: six lower-case pairs, unicast.
    virtual std::string randomMACAddress() const = 0;
    /// `dataRepresentation` of a new VZMacMachineIdentifier and of a new VZGenericMachineIdentifier.
    virtual Bytes newMacMachineIdentifier() const = 0;
    virtual Bytes newGenericMachineIdentifier() const = 0;
};

}  // namespace dorvane

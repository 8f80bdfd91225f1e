// SPDX-License-Identifier: Apache-2.0
// A host whose version and networks a test can set; identities are new each time and tell their number.
#pragma once

#include <fmt/format.h>

#include <atomic>

#include "platform/HostSystem.h"

namespace dorvane::test {

class FakeHostSystem : public HostSystem {
  public:
    OperatingSystemVersion version() const override { return osVersion; }
    int coreCount() const override { return 8; }
    std::uint64_t memoryBytes() const override { return std::uint64_t{16} << 30; }
    std::string userName() const override { return "tester"; }
    bool isVirtualizationSupported() const override { return true; }
    std::vector<NetworkInterface> networkInterfaces() const override { return interfaces; }

    std::string randomMACAddress() const override {
        const unsigned serial = next();
        return fmt::format("02:00:00:00:{:02x}:{:02x}", serial >> 8 & 0xFF, serial & 0xFF);
    }
    Bytes newMacMachineIdentifier() const override { return toBytes(fmt::format("mac-{}", next())); }
    Bytes newGenericMachineIdentifier() const override { return toBytes(fmt::format("generic-{}", next())); }

    OperatingSystemVersion osVersion{27, 0, 0};
    std::vector<NetworkInterface> interfaces;

  private:
    unsigned next() const { return ++serial_; }
    mutable std::atomic<unsigned> serial_ = 0;
};

}  // namespace dorvane::test

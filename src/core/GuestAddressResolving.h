// SPDX-License-Identifier: Apache-2.0
// From a guest's MAC address to its IPv4 address, as far as the host knows it.
#pragma once

#include <optional>
#include <string>

namespace dorvane {

class GuestAddressResolving {
  public:
    virtual ~GuestAddressResolving() = default;

    /// Reads the host's tables; blocks briefly, safe on any thread, never throws.
    virtual std::optional<std::string> ipAddress(const std::string& macAddress) const = 0;
};

}  // namespace dorvane

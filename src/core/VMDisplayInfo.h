// SPDX-License-Identifier: Apache-2.0
// What a machine's network and screen mean to its user.
#pragma once

#include <optional>
#include <string>

namespace dorvane {

struct NetworkSummary {
    bool isBridged = false;
    std::optional<std::string> bridgedInterfaceIdentifier;
    bool isBridgedOverWireless = false;
    bool isIsolated = false;
    bool hasHostVisibleAddress = true;

    /// "Shared (NAT)", "Bridged (en0)", "Isolated".
    std::string label() const;
    /// Why no address is known: a sentence for the user.
    std::string absentAddressText() const;
    bool operator==(const NetworkSummary&) const = default;
};

struct VMDisplayInfo {
    std::optional<std::string> ipAddress;
    /// "1440x900".
    std::optional<std::string> resolution;
    bool hasUsableDisplay = false;
    std::optional<NetworkSummary> network;
    std::string absentAddressText;
};

}  // namespace dorvane

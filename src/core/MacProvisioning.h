// SPDX-License-Identifier: Apache-2.0
// The first account of a new macOS guest.
#pragma once

#include <string>

namespace dorvane {

struct MacProvisioningRequest {
    std::string fullName;
    std::string username;
    bool logsInAutomatically = false;
    bool enablesRemoteLogin = false;
    bool operator==(const MacProvisioningRequest&) const = default;
};

/// Exists only in memory: the password is never written to the bundle.
struct MacProvisioningDraft {
    MacProvisioningRequest request;
    std::string password;
    bool operator==(const MacProvisioningDraft&) const = default;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// What marks a disposable sandbox.
#pragma once

#include <optional>

#include "base/Date.h"
#include "base/JSON.h"
#include "base/UUID.h"

namespace dorvane {

struct EphemeralInfo {
    Date createdAt;
    Date expiresAt;
    std::optional<UUID> sourceVMID;

    /// Keys "createdAt", "expiresAt", "sourceVMID"; dates in ISO 8601.
    JSON encoded() const;
    static EphemeralInfo decoded(const JSON& value);
    bool operator==(const EphemeralInfo&) const = default;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Where a macOS guest's first account waits for its first boot.
#pragma once

#include "base/UUID.h"
#include "core/MacProvisioning.h"
#include "core/VMBundle.h"

namespace dorvane {

/// Blocking and safe on any thread.
class GuestProvisioningStoring {
  public:
    virtual ~GuestProvisioningStoring() = default;

    /// Throws invalidConfiguration for an account that this host or the platform won't take.
    virtual void validate(const MacProvisioningDraft& draft) const = 0;
    /// Throws invalidConfiguration or FileError; nothing stays behind then.
    virtual void save(const UUID& vmID, const VMBundle& bundle, const MacProvisioningDraft& draft) = 0;
    /// Best effort.
    virtual void discard(const UUID& vmID, const VMBundle& bundle) = 0;
};

}  // namespace dorvane

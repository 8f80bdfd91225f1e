// SPDX-License-Identifier: Apache-2.0
// Laying out the guest agent's files for a guest to fetch.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

class GuestAgentPayloadStaging {
  public:
    virtual ~GuestAgentPayloadStaging() = default;

    /// Writes the payload and returns its directory. Blocking, for background work. Throws FileError.
    virtual Path stage() const = 0;
};

}  // namespace dorvane

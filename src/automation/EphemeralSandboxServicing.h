// SPDX-License-Identifier: Apache-2.0
// Disposable sandboxes as the tools see them.
#pragma once

#include "core/VMRecord.h"
#include "runtime/Clock.h"

namespace dorvane {

/// Main thread only.
class EphemeralSandboxServicing {
  public:
    virtual ~EphemeralSandboxServicing() = default;

    /// Clones a stopped machine into a sandbox that expires after `ttl`.
    virtual Task<VMRecordPointer> createSandbox(VMRecordPointer source, Duration ttl,
                                                bool isolatesNetwork) = 0;
    /// Moves expired, stopped sandboxes to the Trash.
    virtual Task<void> reap(Date now) = 0;
};

}  // namespace dorvane

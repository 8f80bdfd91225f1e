// SPDX-License-Identifier: Apache-2.0
// Disposable sandboxes as the tools see them.
#pragma once

#include "core/VMRecord.h"
#include "runtime/Clock.h"

namespace dorvane {

/// What a user may ask for; the service itself clamps.
constexpr std::int64_t defaultSandboxMinutes = 1440, maximumSandboxMinutes = 10080;

/// Main thread only.
class EphemeralSandboxServicing {
  public:
    virtual ~EphemeralSandboxServicing() = default;

    /// Clones a stopped machine into a sandbox that expires after `ttl`, clamped to 60 s and one week. Throws
    /// what cloning, configuring and saving throw.
    virtual Task<VMRecordPointer> createSandbox(VMRecordPointer source, Duration ttl,
                                                bool isolatesNetwork) = 0;
    /// Makes a sandbox a regular machine; does nothing to one that is regular already. Throws StoreError.
    virtual void keep(VMRecordPointer vm) = 0;
    /// Moves the end of a sandbox's life, at most to one week from `now`; a negative `by` shortens it. Throws
    /// StoreError.
    virtual void extend(VMRecordPointer vm, Duration by, Date now) = 0;
    /// Moves expired, stopped sandboxes to the Trash and returns their names. Throws only on cancellation.
    virtual Task<std::vector<std::string>> reap(Date now) = 0;
};

}  // namespace dorvane

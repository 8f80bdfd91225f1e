// SPDX-License-Identifier: Apache-2.0
// Making good what a crash left in a machine's files.
#pragma once

#include "core/VMRecord.h"
#include "runtime/Task.h"

namespace dorvane {

/// Main thread only.
class VMBundleRecovering {
  public:
    virtual ~VMBundleRecovering() = default;

    /// Finishes or undoes an operation on a stopped machine's files that an earlier process didn't live to
    /// end. Returns at once when this process has seen to the machine before. Awaited before the files of a
    /// stopped machine are used. Throws what keeps the files from being used.
    virtual Task<void> recover(VMRecordPointer vm) = 0;
};

}  // namespace dorvane

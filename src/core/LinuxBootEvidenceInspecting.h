// SPDX-License-Identifier: Apache-2.0
// Whether a disk holds an installed system.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

class LinuxBootEvidenceInspecting {
  public:
    virtual ~LinuxBootEvidenceInspecting() = default;

    /// Reads a few blocks of a raw disk; safe on any thread, never throws.
    virtual bool diskShowsBootableSystem(const Path& disk) const = 0;
};

}  // namespace dorvane

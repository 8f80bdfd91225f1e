// SPDX-License-Identifier: Apache-2.0
// What a clone needs of the snapshot chain.
#pragma once

#include "core/VMBundle.h"

namespace dorvane {

class LiveDiskFlattening {
  public:
    virtual ~LiveDiskFlattening() = default;

    /// Merges all layers of the bundle's disk into "disk.qcow2"; a disk without layers stays as it is.
    /// Blocking, for background work. Throws the disk tool's error.
    virtual void flattenLiveDisk(const VMBundle& bundle) const = 0;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// What the library needs of the qcow2 tool; implemented in qemu/.
#pragma once

#include "runtime/Files.h"

namespace dorvane {

/// Blocking; for background work.
class DiskImageTool {
  public:
    virtual ~DiskImageTool() = default;
    /// Makes an empty qcow2 image. Throws vmCreationFailed.
    virtual void createImage(const Path& path, std::uint64_t sizeBytes) const = 0;
    /// Changes the virtual size. Throws vmSnapshotFailed with the tool's words.
    virtual void resizeImage(const Path& path, std::uint64_t sizeBytes) const = 0;
};

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// One service on one library.
#pragma once

#include <optional>

#include "runtime/FileDescriptor.h"
#include "runtime/Files.h"

namespace dorvane {

/// Held from start to exit; the system frees it when the process ends, however it ends.
class InstanceLock {
  public:
    /// Throws std::runtime_error with a sentence that names the other process, or FileError.
    explicit InstanceLock(const Path& file);

  private:
    FileDescriptor fd_;
};

}  // namespace dorvane

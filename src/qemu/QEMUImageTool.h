// SPDX-License-Identifier: Apache-2.0
// The minimal runner of qemu-img.
#pragma once

#include <string>
#include <vector>

#include "runtime/Files.h"

namespace dorvane {

struct QEMUImageTool {
    /// Runs the tool to its end, its output discarded; blocks the calling thread. Throws POSIXError when it
    /// can't be started and vmCreationFailed with `failureReason` when it fails.
    static void run(const Path& tool, std::vector<std::string> arguments, const std::string& failureReason);
};

}  // namespace dorvane

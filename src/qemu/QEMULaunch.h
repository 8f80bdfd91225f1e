// SPDX-License-Identifier: Apache-2.0
// What the supervisor is told to start.
#pragma once

#include "qemu/QEMURuntimePaths.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

/// A plain value; making it starts nothing.
struct QEMULaunch {
    std::vector<std::string> arguments;
    QEMURuntimePaths paths;
    /// Absent: the child inherits this process's environment.
    std::optional<Environment> environment = {};
    /// A memory state to load; the arguments make QEMU wait for it then.
    std::optional<Path> restoringFrom = {};
};

}  // namespace dorvane

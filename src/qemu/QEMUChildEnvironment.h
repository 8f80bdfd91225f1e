// SPDX-License-Identifier: Apache-2.0
// What a QEMU child finds in its environment.
#pragma once

#include "qemu/QEMURuntimePaths.h"
#include "runtime/ChildProcess.h"

namespace dorvane {

/// This process's environment with what the package needs and what the render server needs. Absent when
/// nothing is to be changed: the child inherits then. Pure.
std::optional<Environment> qemuChildEnvironment(const Environment& own, const Environment& package,
                                                const QEMURuntimePaths& paths);

}  // namespace dorvane

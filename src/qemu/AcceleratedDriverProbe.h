// SPDX-License-Identifier: Apache-2.0
// Whether a guest draws through its accelerated driver, told from the render server's workers.
#pragma once

#include <optional>

#include "platform/Processes.h"

namespace dorvane::AcceleratedDriverProbe {

/// How many contexts the guest has open: the render server, a child of QEMU, starts one worker a context.
/// Absent when QEMU has no such child or the host doesn't say. Any thread.
std::optional<int> contextCount(const Processes& processes, int qemuPID, const Path& renderServer);

}  // namespace dorvane::AcceleratedDriverProbe

// SPDX-License-Identifier: Apache-2.0
// What happens between fork and exec, in one place.
#pragma once

#include "runtime/ChildProcess.h"

namespace dorvane {

/// The child's descriptors 0, 1 and 2, in the parent's numbers.
struct SpawnStreams {
    int input, output, error;
};

/// Starts the program and returns its process id. In the child: the three streams are put in place, every
/// other descriptor is closed, no signal is blocked and SIGPIPE has its default action again. Throws
/// POSIXError.
int spawnProgram(const ProcessCommand& command, const SpawnStreams& streams);

}  // namespace dorvane

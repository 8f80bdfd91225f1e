// SPDX-License-Identifier: Apache-2.0
// The headless service: `dorvane serve`.
#pragma once

#include "app/CommandLine.h"

namespace dorvane {

/// Runs until SIGTERM, SIGINT or SIGHUP and returns the exit status. A failure to start is one sentence on
/// standard error.
int runService(const ServeRequest& request);

/// The socket that a running service of this user listens on.
Path controlSocketPath();

}  // namespace dorvane

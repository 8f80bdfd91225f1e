// SPDX-License-Identifier: Apache-2.0
// The log's usual place, for a sink that wants its lines there as well.
#pragma once

#include "runtime/Logger.h"

namespace dorvane {

/// One line with time, level and category. Safe on any thread.
void writeToStandardError(const LogLine& line);

}  // namespace dorvane

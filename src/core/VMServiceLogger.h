// SPDX-License-Identifier: Apache-2.0
// One log category for all parts of VMService.
#pragma once

#include "runtime/Logger.h"

namespace dorvane {

inline const Logger vmServiceLogger("VMService");

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// A bundle's configuration and completeness, with the failures in words for the user.
#pragma once

#include "core/DorvaneError.h"
#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"

namespace dorvane {

/// Throws `which` with the sentence about a missing configuration or disk. Blocking.
void requireComplete(const VMBundle& bundle, DorvaneError::Case which);
/// Throws invalidConfiguration whatever the cause. Blocking.
DorvaneVMConfig readConfiguration(const VMBundle& bundle);

}  // namespace dorvane

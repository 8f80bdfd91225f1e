// SPDX-License-Identifier: Apache-2.0
// A machine description's digest, kept beside saved states and snapshots.
#pragma once

#include <string>

#include "core/DorvaneVMConfig.h"

namespace dorvane {

/// SHA-256 over the description's JSON with sorted keys, as 64 lower-case hexadecimal digits.
std::string configHash(const DorvaneVMConfig& config);

}  // namespace dorvane

// SPDX-License-Identifier: Apache-2.0
// Writing down what a launch chose for its machine: ports and secrets.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"

namespace dorvane::QEMULaunchSettings {

/// Not while a suspended state waits: it is good only for the description that it was saved under, so the
/// file follows when the state is used or gone. Throws FileError.
inline void write(const DorvaneVMConfig& config, const VMBundle& bundle) {
    if (!bundle.hasSavedState()) config.write(bundle.configFile());
}

}  // namespace dorvane::QEMULaunchSettings

// SPDX-License-Identifier: Apache-2.0
// The argument vector of qemu-system-aarch64 for one launch.
#pragma once

#include <string>
#include <vector>

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "core/VMEngineProtocol.h"
#include "qemu/QEMURuntimePaths.h"

namespace dorvane {

/// Pure: reads no file, never fails, and gives the same vector for the same inputs, in the same order; the
/// fingerprint of a suspended machine relies on it. The vector is the one for the product's own QEMU build on
/// its first host; QEMUHostAdapter translates it for others.
struct QEMUCommandBuilder {
    /// Without the executable's name in front.
    static std::vector<std::string> buildArguments(const DorvaneVMConfig& config, const VMBundle& bundle,
                                                   const VMAttachments& attachments,
                                                   const QEMURuntimePaths& paths);

    /// Doubles each comma: QEMU's own escape inside a comma-separated option value.
    static std::string escaped(std::string_view value);
};

}  // namespace dorvane

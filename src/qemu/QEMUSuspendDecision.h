// SPDX-License-Identifier: Apache-2.0
// Whether a suspended state may be resumed.
#pragma once

#include "core/DorvaneVMConfig.h"
#include "core/VMBundle.h"
#include "qemu/QEMUSuspendFingerprint.h"

namespace dorvane {

struct QEMUSuspendDecision {
    /// `discard`: the state is unusable, boot cold. `hardwareChanged`: keep it and tell the user, who can
    /// undo the change.
    enum class Outcome { discard, resume, hardwareChanged };

    /// Reads the bundle's small files; never throws.
    static Outcome decide(const VMBundle& bundle, const DorvaneVMConfig& config,
                          const QEMUSuspendFingerprint& current);
};

}  // namespace dorvane
